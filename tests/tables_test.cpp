// SPDX-License-Identifier: Apache-2.0
// The load-time feature tables have internal linkage, so this test compiles
// the library's source unit into itself to read them.
#include "QcomPostProcInfo.cpp"

#include <gtest/gtest.h>

#include <string.h>

#include <string>

namespace {

// "mask:width,height,fps,flag,level,primaryFeature" per entry, in mask order.
std::string text(const FeatureConcurrency& entries) {
    std::string result;
    for (const auto& [mask, p] : entries) {
        char entry[96];
        snprintf(entry, sizeof(entry), "%s%u:%u,%u,%u,%u,%u,%u", result.empty() ? "" : " ", mask,
                 p.width, p.height, p.fps, p.flag, p.level, p.primaryFeature);
        result += entry;
    }
    return result;
}

// Keyed by the platform name's address: lookups must use these very strings.
const FeatureConcurrency* platform(const char* name) {
    for (const auto& [key, entries] : sAdvancedFeatureConcurrency) {
        if (strcmp(key, name) == 0) {
            char copy[16];
            snprintf(copy, sizeof(copy), "%s", name);
            EXPECT_EQ(sAdvancedFeatureConcurrency.count(copy), 0u);
            return &sAdvancedFeatureConcurrency.at(key);
        }
    }
    return nullptr;
}

TEST(Tables, AppMetaTagsNameTheTwoConfiguredActivities) {
    ASSERT_EQ(sAppMetaTagMap.size(), 2u);
    EXPECT_STREQ(sAppMetaTagMap.at(KY_APP_META_CAPTURE_ACTIVITY),
                 "android.control.aeTargetFpsRange");
    EXPECT_STREQ(sAppMetaTagMap.at(KY_APP_META_LIVEROOM_ACTIVITY),
                 "android.control.aeTargetFpsRange");
}

TEST(Tables, FeatureMaskNames) {
    std::map<unsigned, std::string> names(sFeatureMaskNames.begin(), sFeatureMaskNames.end());
    std::string all;
    for (const auto& [mask, name] : names) {
        all += std::to_string(mask) + ":" + name + " ";
    }
    EXPECT_EQ(all,
              "1:VIULL 3:VIULL_BOKEH 5:VIULL_ZOOM100x 8:MFHDROnly 9:VIULL_MFHDR 12:MFHDR_ZOOM100x "
              "17:VIULL_VRT 32:sHDROnly 33:VIULL_SHDR 34:sHDR_BOKEH 36:sHDR_ZOOM100x 48:sHDR_VRT "
              "72:MFHDR_FHD60 96:sHDR_FHD60 129:VIULL_FPS60 257:HDR10_VIULL 264:HDR10_MFHDR "
              "272:HDR10_VRT 768:HDR10_iFOVC 1280:HDR10_EISv2 2048:AutoHDROnly 4096:HVXSHDROnly "
              "8192:HVXMFHDROnly ");
    EXPECT_FLOAT_EQ(sFeatureMaskNames.max_load_factor(), 1.0f);
}

TEST(Tables, ThreePlatformsAndTheirEntries) {
    ASSERT_EQ(sAdvancedFeatureConcurrency.size(), 3u);
    ASSERT_NE(platform("pelgra"), nullptr);
    ASSERT_NE(platform("sorvi"), nullptr);
    ASSERT_NE(platform("sm7750"), nullptr);
    const std::string shared =
            "1:0,0,0,0,1,1 3:0,0,0,0,2,1 5:1920,1080,30,1,2,1 8:0,0,0,0,3,8 9:0,0,0,0,2,8 "
            "17:1920,1080,30,1,2,16 32:0,0,0,0,1,32 33:1920,1080,30,1,2,1 34:0,0,0,0,2,32 "
            "36:1920,1080,30,1,2,32 48:0,0,0,0,2,16 96:1920,1080,60,0,2,32 129:0,0,60,0,2,1 "
            "257:0,0,0,0,2,1 264:0,0,0,0,2,8 272:0,0,0,0,2,16 768:0,0,0,0,2,512 "
            "1280:0,0,0,0,2,1024 2048:0,0,0,0,3,2048 4096:0,0,0,0,3,4096 8192:0,0,0,0,1,8192";
    EXPECT_EQ(text(*platform("pelgra")), shared);
    EXPECT_EQ(text(*platform("sorvi")), shared);
    // sm7750 differs on VIULL_BOKEH, VIULL_FPS60 and AutoHDROnly.
    EXPECT_EQ(text(*platform("sm7750")),
              "3:0,0,0,0,3,1 8:0,0,0,0,3,8 32:0,0,0,0,1,32 34:0,0,0,0,2,32 "
              "96:1920,1080,60,0,2,32 129:1920,1080,60,1,2,1 2048:0,0,0,0,1,2048");
}

}  // namespace
