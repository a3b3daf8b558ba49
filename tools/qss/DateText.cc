#include "DateText.h"

#include <charconv>
#include <cstdio>

namespace QelSS::Qss {
namespace {

constexpr int64_t kSecondsPerDay = 86400;

// Days between 1970-01-01 and the given day of the proleptic Gregorian
// calendar, counted in 400-year eras so that no table is needed.
int64_t DaysFromCivil(int64_t year, unsigned month, unsigned day) {
  year -= month <= 2;
  const int64_t era = (year >= 0 ? year : year - 399) / 400;
  const unsigned yearOfEra = static_cast<unsigned>(year - era * 400);
  const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + static_cast<int64_t>(dayOfEra) - 719468;
}

struct CivilDay {
  int64_t year;
  unsigned month;
  unsigned day;
};

CivilDay CivilFromDays(int64_t days) {
  days += 719468;
  const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const unsigned dayOfEra = static_cast<unsigned>(days - era * 146097);
  const unsigned yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned shiftedMonth = (5 * dayOfYear + 2) / 153;
  const unsigned day = dayOfYear - (153 * shiftedMonth + 2) / 5 + 1;
  const unsigned month = shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9;
  const int64_t year = static_cast<int64_t>(yearOfEra) + era * 400 + (month <= 2);
  return {year, month, day};
}

bool IsLeapYear(int64_t year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

unsigned DaysInMonth(int64_t year, unsigned month) {
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Reads exactly `width` decimal digits at `pos` and moves past them.
std::optional<unsigned> Digits(std::string_view text, size_t& pos, size_t width) {
  if (pos + width > text.size()) return std::nullopt;
  unsigned value = 0;
  for (size_t i = 0; i < width; ++i) {
    const char c = text[pos + i];
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  pos += width;
  return value;
}

bool Expect(std::string_view text, size_t& pos, char wanted) {
  if (pos >= text.size() || text[pos] != wanted) return false;
  ++pos;
  return true;
}

std::optional<int64_t> ParseSeconds(std::string_view text) {
  int64_t seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return seconds;
}

std::optional<int64_t> ParseIsoDate(std::string_view text) {
  size_t pos = 0;
  const auto year = Digits(text, pos, 4);
  if (!year || !Expect(text, pos, '-')) return std::nullopt;
  const auto month = Digits(text, pos, 2);
  if (!month || *month < 1 || *month > 12 || !Expect(text, pos, '-')) return std::nullopt;
  const auto day = Digits(text, pos, 2);
  if (!day || *day < 1 || *day > DaysInMonth(*year, *month)) return std::nullopt;
  const int64_t midnight = DaysFromCivil(*year, *month, *day) * kSecondsPerDay;
  if (pos == text.size()) return midnight;

  if (!Expect(text, pos, 'T')) return std::nullopt;
  const auto hour = Digits(text, pos, 2);
  if (!hour || *hour > 23 || !Expect(text, pos, ':')) return std::nullopt;
  const auto minute = Digits(text, pos, 2);
  if (!minute || *minute > 59) return std::nullopt;
  unsigned second = 0;
  if (pos < text.size() && text[pos] == ':') {
    ++pos;
    const auto parsed = Digits(text, pos, 2);
    if (!parsed || *parsed > 59) return std::nullopt;
    second = *parsed;
  }
  if (!Expect(text, pos, 'Z') || pos != text.size()) return std::nullopt;
  return midnight + *hour * 3600 + *minute * 60 + second;
}

}  // namespace

std::optional<int64_t> ParseDate(std::string_view text) {
  if (text.size() >= 5 && text[4] == '-') return ParseIsoDate(text);
  return ParseSeconds(text);
}

std::string FormatDate(int64_t secondsSince1970) {
  int64_t days = secondsSince1970 / kSecondsPerDay;
  int64_t rest = secondsSince1970 % kSecondsPerDay;
  if (rest < 0) {
    rest += kSecondsPerDay;
    --days;
  }
  const CivilDay civil = CivilFromDays(days);
  char text[64];
  std::snprintf(text, sizeof text, "%04lld-%02u-%02uT%02lld:%02lld:%02lldZ",
                static_cast<long long>(civil.year), civil.month, civil.day,
                static_cast<long long>(rest / 3600), static_cast<long long>(rest / 60 % 60),
                static_cast<long long>(rest % 60));
  return text;
}

}  // namespace QelSS::Qss
