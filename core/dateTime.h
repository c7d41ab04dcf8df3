#ifndef VREC_CORE_DATETIME_H
#define VREC_CORE_DATETIME_H

#include <cstdint>
#include <string>

// Wall-clock milliseconds since the epoch (not monotonic).
uint64_t GetTickMs();
// The local time of day of a GetTickMs() value, as "HH:MM:SS.mmm".
std::string ClockText(uint64_t ms);

// A snapshot of local time, taken at construction.
class CDateTime {
public:
    CDateTime();
    virtual ~CDateTime() = default;

    int Year() const { return year; }
    int Month() const { return month; }
    int Day() const { return day; }
    int Hour() const { return hour; }
    int Minute() const { return minute; }
    int Second() const { return second; }
    int Millisecond() const { return millisecond; }

private:
    int year = 1970;
    int month = 1;
    int day = 1;
    int hour = 0;
    int minute = 0;
    int second = 0;
    int millisecond = 0;
};

#endif
