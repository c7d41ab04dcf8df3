#include "dateTime.h"

#include <time.h>

#include <cstdio>

uint64_t GetTickMs() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec / 1000000);
}

std::string ClockText(uint64_t ms) {
    const time_t seconds = static_cast<time_t>(ms / 1000);
    tm local{};
    if (localtime_r(&seconds, &local) == nullptr) {
        return "??:??:??";
    }
    char text[16];
    snprintf(text, sizeof(text), "%02d:%02d:%02d.%03u", local.tm_hour, local.tm_min, local.tm_sec,
             static_cast<unsigned>(ms % 1000));
    return text;
}

CDateTime::CDateTime() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const time_t seconds = now.tv_sec;
    tm local{};
    if (localtime_r(&seconds, &local) == nullptr) {
        return;
    }
    year = local.tm_year + 1900;
    month = local.tm_mon + 1;
    day = local.tm_mday;
    hour = local.tm_hour;
    minute = local.tm_min;
    second = local.tm_sec;
    millisecond = static_cast<int>(now.tv_nsec / 1000000);
}
