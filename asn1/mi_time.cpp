#include "asn1/mi_time.h"

#include <chrono>
#include <string>

#include "asn1/mi_exception.h"

namespace {

// Days since 1970-01-01 of a civil date (proleptic Gregorian).
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void CivilFromDays(int64_t z, int& y, int& m, int& d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t yy = static_cast<int64_t>(yoe) + era * 400;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  y = static_cast<int>(yy + (m <= 2));
}

bool Digits(const char* p, unsigned n, int& value) {
  if (!p || n == 0) return false;
  value = 0;
  for (unsigned i = 0; i < n; ++i) {
    if (p[i] < '0' || p[i] > '9') return false;
    value = value * 10 + (p[i] - '0');
  }
  return true;
}

// Seconds from 0001-01-01 to 9999-12-31 23:59:59 relative to the epoch.
const int64_t kMinSeconds = DaysFromCivil(1, 1, 1) * 86400;
const int64_t kMaxSeconds = DaysFromCivil(9999, 12, 31) * 86400 + 86399;

}  // namespace

MiTime::MiTime(int year, int month, int day, int hour, int minute, int second) {
  SetTime(year, month, day, hour, minute, second);
}

MiTime MiTime::Now() {
  auto now = std::chrono::system_clock::now();
  MiTime t;
  t.SetTimeT(static_cast<time_t>(
      std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count()));
  return t;
}

bool MiTime::IsLeapYear(int year) {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int MiTime::DaysInMonth(int year, int month) {
  static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12) return 0;
  if (month == 2 && IsLeapYear(year)) return 29;
  return days[month - 1];
}

bool MiTime::IsValid(int year, int month, int day, int hour, int minute, int second) {
  return year >= 1 && year <= 9999 && month >= 1 && month <= 12 && day >= 1 &&
         day <= DaysInMonth(year, month) && hour >= 0 && hour <= 23 && minute >= 0 &&
         minute <= 59 && second >= 0 && second <= 59;
}

void MiTime::SetTime(int year, int month, int day, int hour, int minute, int second) {
  if (!IsValid(year, month, day, hour, minute, second)) throw MiInvalidArgumentExp();
  m_year = year;
  m_month = month;
  m_day = day;
  m_hour = hour;
  m_minute = minute;
  m_second = second;
}

void MiTime::SetTimeT(time_t t) {
  int64_t s = static_cast<int64_t>(t);
  if (s < kMinSeconds || s > kMaxSeconds) throw MiOutOfRangeExp();
  int64_t days = s >= 0 ? s / 86400 : -((-s + 86399) / 86400);
  int64_t rest = s - days * 86400;
  int y, m, d;
  CivilFromDays(days, y, m, d);
  m_year = y;
  m_month = m;
  m_day = d;
  m_hour = static_cast<int>(rest / 3600);
  m_minute = static_cast<int>(rest / 60 % 60);
  m_second = static_cast<int>(rest % 60);
}

int64_t MiTime::ToTimeT() const {
  if (IsEmpty()) return 0;
  return DaysFromCivil(m_year, static_cast<unsigned>(m_month), static_cast<unsigned>(m_day)) *
             86400 +
         m_hour * 3600 + m_minute * 60 + m_second;
}

void MiTime::AddSeconds(int64_t seconds) {
  if (seconds == 0) return;
  int64_t s = ToTimeT();
  if ((seconds > 0 && s > kMaxSeconds - seconds) || (seconds < 0 && s < kMinSeconds - seconds))
    throw MiOutOfRangeExp();
  SetTimeT(static_cast<time_t>(s + seconds));
}

MiString MiTime::GetTimeString(const char* pattern) const {
  std::string out;
  if (!pattern) pattern = "YYYYMMDDhhmmss";
  auto put = [&out](int v, int width) {
    std::string s = std::to_string(v);
    if (static_cast<int>(s.size()) < width) s.insert(0, width - s.size(), '0');
    out += s.substr(s.size() - width);
  };
  for (const char* p = pattern; *p;) {
    if (p[0] == 'Y' && p[1] == 'Y' && p[2] == 'Y' && p[3] == 'Y') {
      put(m_year, 4);
      p += 4;
    } else if (p[0] == 'Y' && p[1] == 'Y') {
      put(m_year % 100, 2);
      p += 2;
    } else if (p[0] == 'M' && p[1] == 'M') {
      put(m_month, 2);
      p += 2;
    } else if (p[0] == 'D' && p[1] == 'D') {
      put(m_day, 2);
      p += 2;
    } else if (p[0] == 'h' && p[1] == 'h') {
      put(m_hour, 2);
      p += 2;
    } else if (p[0] == 'm' && p[1] == 'm') {
      put(m_minute, 2);
      p += 2;
    } else if (p[0] == 's' && p[1] == 's') {
      put(m_second, 2);
      p += 2;
    } else {
      out.push_back(*p++);
    }
  }
  return MiString(out.c_str());
}

bool MiTime::TestYearString(const char* p, unsigned n) {
  int v;
  if ((n != 2 && n != 4) || !Digits(p, n, v)) return false;
  return n == 2 || v >= 1;
}

bool MiTime::TestMonthString(const char* p, unsigned n) {
  int v;
  return n == 2 && Digits(p, n, v) && v >= 1 && v <= 12;
}

bool MiTime::TestDayString(const char* p, unsigned n, int year, int month) {
  int v;
  return n == 2 && Digits(p, n, v) && v >= 1 && v <= DaysInMonth(year, month);
}

bool MiTime::TestHourString(const char* p, unsigned n) {
  int v;
  return n == 2 && Digits(p, n, v) && v <= 23;
}

bool MiTime::TestMinuteOrSecondString(const char* p, unsigned n) {
  int v;
  return n == 2 && Digits(p, n, v) && v <= 59;
}

int MiTime::CompareTo(const MiTime& o) const {
  const int a[] = {m_year, m_month, m_day, m_hour, m_minute, m_second};
  const int b[] = {o.m_year, o.m_month, o.m_day, o.m_hour, o.m_minute, o.m_second};
  for (int i = 0; i < 6; ++i)
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  return 0;
}
