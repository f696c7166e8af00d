// MiTime: a UTC calendar time (year 1..9999), with the field tests and the
// pattern formatter used by the ASN.1 time types.
#pragma once

#include <cstdint>
#include <ctime>

#include "asn1/mi_object.h"
#include "asn1/mi_string.h"

class MiTime : public MiObject {
 public:
  // An empty time (all fields 0); IsEmpty() is true.
  MiTime() = default;
  MiTime(const MiTime&) = default;
  MiTime& operator=(const MiTime&) = default;
  // Raises MiInvalidArgumentExp for an impossible date or time.
  MiTime(int year, int month, int day, int hour, int minute, int second);
  explicit MiTime(time_t t) { SetTimeT(t); }

  static MiTime Now();

  void SetTime(int year, int month, int day, int hour, int minute, int second);
  void SetTimeT(time_t t);
  // Seconds since 1970-01-01 00:00:00 UTC (negative before).
  int64_t ToTimeT() const;
  void Clear() { *this = MiTime(); }
  bool IsEmpty() const { return m_year == 0; }

  int GetYear() const { return m_year; }
  int GetMonth() const { return m_month; }
  int GetDay() const { return m_day; }
  int GetHour() const { return m_hour; }
  int GetMinute() const { return m_minute; }
  int GetSecond() const { return m_second; }

  // Moves the time by seconds; MiOutOfRangeExp when it leaves years 1..9999.
  void AddSeconds(int64_t seconds);

  // Tokens YYYY, YY, MM, DD, hh, mm, ss are replaced by the fields; every
  // other character is copied.
  MiString GetTimeString(const char* pattern = "YYYYMMDDhhmmss") const;

  // Field tests on text (n characters from p, digits only).
  // Year: 2 or 4 digits, 4-digit years 0001..9999.
  static bool TestYearString(const char* p, unsigned n);
  static bool TestMonthString(const char* p, unsigned n);  // 01..12
  // 01..days of that month (Feb 29 only in leap years).
  static bool TestDayString(const char* p, unsigned n, int year, int month);
  static bool TestHourString(const char* p, unsigned n);            // 00..23
  static bool TestMinuteOrSecondString(const char* p, unsigned n);  // 00..59
  static bool IsLeapYear(int year);
  static int DaysInMonth(int year, int month);
  static bool IsValid(int year, int month, int day, int hour, int minute, int second);

  int CompareTo(const MiTime& other) const;
  bool operator==(const MiTime& o) const { return CompareTo(o) == 0; }
  bool operator!=(const MiTime& o) const { return CompareTo(o) != 0; }
  bool operator<(const MiTime& o) const { return CompareTo(o) < 0; }
  bool operator<=(const MiTime& o) const { return CompareTo(o) <= 0; }
  bool operator>(const MiTime& o) const { return CompareTo(o) > 0; }
  bool operator>=(const MiTime& o) const { return CompareTo(o) >= 0; }

 private:
  int m_year = 0, m_month = 0, m_day = 0, m_hour = 0, m_minute = 0, m_second = 0;
};
