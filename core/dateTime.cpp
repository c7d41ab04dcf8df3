#include "dateTime.h"

#include <time.h>

uint64_t GetTickMs() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec / 1000000);
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
