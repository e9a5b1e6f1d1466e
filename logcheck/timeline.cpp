// SPDX-License-Identifier: Apache-2.0
#include <math.h>

#include <algorithm>

#include "logcheck.h"

namespace logcheck {

namespace {

constexpr double kDay = 86400;
constexpr double kYear = 365 * kDay;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Digits at *at as a whole number; false when there are none.
bool number(std::string_view s, size_t* at, int64_t* out) {
    const size_t start = *at;
    int64_t value = 0;
    while (*at < s.size() && isDigit(s[*at]) && *at - start < 18) {
        value = value * 10 + (s[(*at)++] - '0');
    }
    *out = value;
    return *at > start;
}

// ".fff" to ".fffffffff" at *at, as a fraction of a second.
double fraction(std::string_view s, size_t* at) {
    if (*at >= s.size() || s[*at] != '.') {
        return 0;
    }
    double value = 0;
    double unit = 0.1;
    for (++*at; *at < s.size() && isDigit(s[*at]); ++*at, unit /= 10) {
        value += (s[*at] - '0') * unit;
    }
    return value;
}

// Days since 1970-01-01 of a civil date (Howard Hinnant's algorithm).
int64_t daysFromCivil(int64_t y, int64_t m, int64_t d) {
    y -= m <= 2 ? 1 : 0;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

}  // namespace

double stampSeconds(std::string_view s) {
    // logcat's own "MM-DD hh:mm:ss.fff": most lines, read in place.
    if (s.size() == 18 && s[2] == '-' && s[5] == ' ' && s[8] == ':' && s[11] == ':' &&
        s[14] == '.') {
        static constexpr int kBefore[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
        int d[13];
        static constexpr int kAt[] = {0, 1, 3, 4, 6, 7, 9, 10, 12, 13, 15, 16, 17};
        unsigned bad = 0;
        for (int i = 0; i < 13; ++i) {
            d[i] = s[kAt[i]] - '0';
            bad |= static_cast<unsigned>(d[i]) > 9 ? 1u : 0u;
        }
        const int month = d[0] * 10 + d[1];
        const int day = d[2] * 10 + d[3];
        if (bad == 0 && month >= 1 && month <= 12 && day >= 1 && day <= 31) {
            return static_cast<double>(kBefore[month - 1] + day - 1) * kDay +
                   (d[4] * 10 + d[5]) * 3600 + (d[6] * 10 + d[7]) * 60 + d[8] * 10 + d[9] +
                   (d[10] * 100 + d[11] * 10 + d[12]) / 1000.0;
        }
    }
    size_t at = s.find_first_not_of(' ');
    int64_t fields[3];
    int count = 0;
    if (at == std::string_view::npos || !number(s, &at, &fields[count++])) {
        return NAN;
    }
    if (at < s.size() && s[at] == '.') {  // epoch or monotonic seconds
        return static_cast<double>(fields[0]) + fraction(s, &at);
    }
    while (count < 3 && at < s.size() && s[at] == '-') {
        ++at;
        if (!number(s, &at, &fields[count++])) {
            return NAN;
        }
    }
    int64_t clock[3];
    if (count < 2 || at >= s.size() || s[at] != ' ') {
        return NAN;
    }
    ++at;
    for (int i = 0; i < 3; ++i) {
        if ((i != 0 && (at >= s.size() || s[at++] != ':')) || !number(s, &at, &clock[i])) {
            return NAN;
        }
    }
    const int64_t month = fields[count - 2];
    const int64_t day = fields[count - 1];
    if (month < 1 || month > 12 || day < 1 || day > 31) {
        return NAN;
    }
    // Without a year, within a common one: only differences are drawn.
    const int64_t days =
            count == 3 ? daysFromCivil(fields[0], month, day) : daysFromCivil(1970, month, day);
    return static_cast<double>(days) * kDay +
           static_cast<double>(clock[0] * 3600 + clock[1] * 60 + clock[2]) + fraction(s, &at);
}

void Timeline::add(uint64_t line, double time, const Totals& totals) {
    if (isnan(time)) {
        mTimed = false;
    } else {
        time += mYears;
        if (time < mLastTime - kYear / 2) {
            mYears += kYear;
            time += kYear;
        }
        mLastTime = time;
    }
    const uint64_t alive[kFamilies] = {totals.records.alive(), totals.chiMetas.alive(),
                                       totals.debugData.alive()};
    if (mPoints.empty()) {
        mFirst = line;
    } else if ((mPoints.back().line - mFirst) / mSpan == (line - mFirst) / mSpan) {
        Point& point = mPoints.back();
        for (int f = 0; f < kFamilies; ++f) {
            point.low[f] = std::min(point.low[f], alive[f]);
            point.high[f] = std::max(point.high[f], alive[f]);
            point.last[f] = alive[f];
        }
        point.lastLine = line;
        point.lastTime = time;
        return;
    }
    mPoints.push_back({line,
                       time,
                       {alive[0], alive[1], alive[2]},
                       {alive[0], alive[1], alive[2]},
                       line,
                       time,
                       {alive[0], alive[1], alive[2]}});
    while (mPoints.size() > kMost) {
        mSpan *= 2;
        size_t kept = 0;
        for (const Point& point : mPoints) {
            Point* last = kept != 0 ? &mPoints[kept - 1] : nullptr;
            if (last != nullptr && (last->line - mFirst) / mSpan == (point.line - mFirst) / mSpan) {
                for (int f = 0; f < kFamilies; ++f) {
                    last->low[f] = std::min(last->low[f], point.low[f]);
                    last->high[f] = std::max(last->high[f], point.high[f]);
                    last->last[f] = point.last[f];
                }
                last->lastLine = point.lastLine;
                last->lastTime = point.lastTime;
            } else {
                mPoints[kept++] = point;
            }
        }
        mPoints.resize(kept);
    }
}

const Timeline::Point* Timeline::at(uint64_t line) const {
    if (mPoints.empty()) {
        return nullptr;
    }
    auto after = std::upper_bound(mPoints.begin(), mPoints.end(), line,
                                  [](uint64_t l, const Point& p) { return l < p.line; });
    return after == mPoints.begin() ? &mPoints.front() : &*(after - 1);
}

double Timeline::timeAt(uint64_t line) const {
    const Point* point = at(line);
    if (point == nullptr || !timed()) {
        return NAN;
    }
    if (line <= point->line || point->lastLine == point->line) {
        return point->time;
    }
    if (line >= point->lastLine) {
        return point->lastTime;
    }
    return point->time + (point->lastTime - point->time) * double(line - point->line) /
                                 double(point->lastLine - point->line);
}

}  // namespace logcheck
