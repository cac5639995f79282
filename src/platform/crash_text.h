// Text for a crash handler: a fixed buffer, no allocation, no locale. What does not fit is cut. One thread.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace rq::platform {

class CrashText {
  public:
    CrashText& operator<<(std::string_view text) {
        const std::size_t length = std::min(text.size(), sizeof m_text - 1 - m_length);
        std::memcpy(m_text + m_length, text.data(), length);
        m_length += length;
        m_text[m_length] = '\0';
        return *this;
    }
    // With leading zeros up to `width`.
    CrashText& Decimal(std::uint64_t value, std::size_t width = 1) { return Number(value, 10, width); }
    // "0x" and digits.
    CrashText& Hex(std::uint64_t value) { return (*this << "0x").Number(value, 16, 1); }

    // `local` counts the seconds of the local clock since 1970-01-01 00:00. "2017-05-31 10:15:30".
    CrashText& Time(std::chrono::sys_seconds local) { return Moment(local, "-", " ", ":"); }
    // "20170531.101530", as in file names.
    CrashText& CompactTime(std::chrono::sys_seconds local) { return Moment(local, "", ".", ""); }

    void Clear() {
        m_length = 0;
        m_text[0] = '\0';
    }

    std::string_view View() const { return {m_text, m_length}; }
    const char* Terminated() const { return m_text; }

  private:
    CrashText& Number(std::uint64_t value, unsigned base, std::size_t width) {
        char digits[24];
        char* at = digits + sizeof digits;
        const char* const end = at;
        do *--at = "0123456789ABCDEF"[value % base];
        while ((value /= base) != 0);
        while (static_cast<std::size_t>(end - at) < std::min(width, sizeof digits)) *--at = '0';
        return *this << std::string_view(at, static_cast<std::size_t>(end - at));
    }
    CrashText& Moment(std::chrono::sys_seconds local, std::string_view inDate, std::string_view between,
                      std::string_view inTime) {
        const auto day = std::chrono::floor<std::chrono::days>(local);
        const std::chrono::year_month_day date(day);
        const auto second = static_cast<std::uint64_t>((local - day).count());
        Decimal(static_cast<std::uint64_t>(int{date.year()}), 4) << inDate;
        Decimal(unsigned{date.month()}, 2) << inDate;
        Decimal(unsigned{date.day()}, 2) << between;
        Decimal(second / 3600, 2) << inTime;
        Decimal(second / 60 % 60, 2) << inTime;
        return Decimal(second % 60, 2);
    }

    char m_text[6 * 1024] = "";
    std::size_t m_length = 0;
};

}  // namespace rq::platform
