// SPDX-License-Identifier: Apache-2.0
// The load-time feature tables have internal linkage, so this test compiles
// the library's source unit into itself to read them.
#include "QcomPostProcInfo.cpp"

#include <gtest/gtest.h>

#include <string.h>

namespace {

bool sameParams(const AdvancedFeatureConcurrencyParams& a,
                const AdvancedFeatureConcurrencyParams& b) {
    return memcmp(&a, &b, sizeof(a)) == 0;
}

const char* platformKey(const char* name) {
    for (const auto& platform : sAdvancedFeatureConcurrency) {
        if (strcmp(platform.first, name) == 0) {
            return platform.first;
        }
    }
    return nullptr;
}

const FeatureConcurrency& platform(const char* name) {
    return sAdvancedFeatureConcurrency.at(platformKey(name));
}

TEST(Tables, AppMetaTagsNameTheTwoConfiguredActivities) {
    ASSERT_EQ(sAppMetaTagMap.size(), 2u);
    EXPECT_STREQ(sAppMetaTagMap.at(KY_APP_META_CAPTURE_ACTIVITY),
                 "android.control.aeTargetFpsRange");
    EXPECT_STREQ(sAppMetaTagMap.at(KY_APP_META_LIVEROOM_ACTIVITY),
                 "android.control.aeTargetFpsRange");
}

TEST(Tables, FeatureMaskNames) {
    EXPECT_EQ(sFeatureMaskNames.size(), 23u);
    EXPECT_FLOAT_EQ(sFeatureMaskNames.max_load_factor(), 1.0f);
    const std::pair<unsigned, const char*> expected[] = {
            {0x3, "VIULL_BOKEH"},     {0x5, "VIULL_ZOOM100x"}, {0x9, "VIULL_MFHDR"},
            {0x11, "VIULL_VRT"},      {0x81, "VIULL_FPS60"},   {0x21, "VIULL_SHDR"},
            {0x24, "sHDR_ZOOM100x"},  {0x30, "sHDR_VRT"},      {0x60, "sHDR_FHD60"},
            {0x22, "sHDR_BOKEH"},     {0x300, "HDR10_iFOVC"},  {0x110, "HDR10_VRT"},
            {0x101, "HDR10_VIULL"},   {0x108, "HDR10_MFHDR"},  {0x500, "HDR10_EISv2"},
            {0xc, "MFHDR_ZOOM100x"},  {0x48, "MFHDR_FHD60"},   {0x800, "AutoHDROnly"},
            {0x20, "sHDROnly"},       {0x8, "MFHDROnly"},      {0x1000, "HVXSHDROnly"},
            {0x2000, "HVXMFHDROnly"}, {0x1, "VIULL"},
    };
    for (const auto& entry : expected) {
        ASSERT_EQ(sFeatureMaskNames.count(entry.first), 1u) << entry.second;
        EXPECT_STREQ(sFeatureMaskNames.at(entry.first), entry.second);
    }
}

TEST(Tables, ThreePlatformsWithTheirEntryCounts) {
    ASSERT_EQ(sAdvancedFeatureConcurrency.size(), 3u);
    EXPECT_EQ(platform("pelgra").size(), 21u);
    EXPECT_EQ(platform("sorvi").size(), 21u);
    EXPECT_EQ(platform("sm7750").size(), 7u);
}

TEST(Tables, PelgraAndSorviShareTheirEntries) {
    const FeatureConcurrency& pelgra = platform("pelgra");
    const FeatureConcurrency& sorvi = platform("sorvi");
    ASSERT_EQ(pelgra.size(), sorvi.size());
    for (const auto& entry : pelgra) {
        ASSERT_EQ(sorvi.count(entry.first), 1u);
        EXPECT_TRUE(sameParams(entry.second, sorvi.at(entry.first))) << entry.first;
    }
    const AdvancedFeatureConcurrencyParams zoom = {1920, 1080, 30, 1, 2, 1};
    EXPECT_TRUE(sameParams(pelgra.at(5), zoom));
    const AdvancedFeatureConcurrencyParams hvxMfhdr = {0, 0, 0, 0, 1, 8192};
    EXPECT_TRUE(sameParams(pelgra.at(8192), hvxMfhdr));
}

TEST(Tables, Sm7750DiffersWhereIntended) {
    const FeatureConcurrency& pelgra = platform("pelgra");
    const FeatureConcurrency& sm7750 = platform("sm7750");
    const struct {
        unsigned mask;
        AdvancedFeatureConcurrencyParams sm7750;
        bool differs;
    } expected[] = {
            {3, {0, 0, 0, 0, 3, 1}, true},           {129, {1920, 1080, 60, 1, 2, 1}, true},
            {96, {1920, 1080, 60, 0, 2, 32}, false}, {34, {0, 0, 0, 0, 2, 32}, false},
            {2048, {0, 0, 0, 0, 1, 2048}, true},     {32, {0, 0, 0, 0, 1, 32}, false},
            {8, {0, 0, 0, 0, 3, 8}, false},
    };
    for (const auto& entry : expected) {
        SCOPED_TRACE(entry.mask);
        ASSERT_EQ(sm7750.count(entry.mask), 1u);
        EXPECT_TRUE(sameParams(sm7750.at(entry.mask), entry.sm7750));
        EXPECT_EQ(!sameParams(pelgra.at(entry.mask), entry.sm7750), entry.differs);
    }
}

TEST(Tables, NamedMasksWithoutConcurrencyEntries) {
    for (const auto& platformEntry : sAdvancedFeatureConcurrency) {
        EXPECT_EQ(platformEntry.second.count(12), 0u) << platformEntry.first;
        EXPECT_EQ(platformEntry.second.count(72), 0u) << platformEntry.first;
        for (const auto& entry : platformEntry.second) {
            // Every entry has a name, and its primary feature is one of its bits.
            EXPECT_EQ(sFeatureMaskNames.count(entry.first), 1u) << entry.first;
            const unsigned primary = entry.second.primaryFeature;
            EXPECT_EQ(primary & (primary - 1), 0u) << entry.first;
            EXPECT_NE(entry.first & primary, 0u) << entry.first;
        }
    }
}

TEST(Tables, PlatformsAreFoundByPointerNotByText) {
    char pelgra[] = "pelgra";
    EXPECT_EQ(sAdvancedFeatureConcurrency.count(pelgra), 0u);
    EXPECT_EQ(sAdvancedFeatureConcurrency.count(platformKey("pelgra")), 1u);
}

}  // namespace
