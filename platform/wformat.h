// The library's printf-style formatter with Windows semantics (wide "%s" is UTF-16, "%hs" narrow).
// Arguments travel as a typed array, so a missing or mismatched argument can never crash it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>


namespace zr::os {

struct FormatArg {
  enum class Kind : std::uint8_t { kInt, kDouble, kNarrow, kWide, kPointer };
  explicit FormatArg(Kind k) : kind(k), bits(0) {}
  Kind kind;
  bool is_signed = false;
  std::uint8_t bytes = 0;  // width of the original integer, for sign/zero extension
  union {
    std::uint64_t bits;
    double real;
    const char* narrow;
    const char16_t* wide;
    const void* pointer;
  };
};

inline FormatArg MakeFormatArg(const char* s) { FormatArg a{FormatArg::Kind::kNarrow}; a.narrow = s; return a; }
inline FormatArg MakeFormatArg(const char16_t* s) { FormatArg a{FormatArg::Kind::kWide}; a.wide = s; return a; }
inline FormatArg MakeFormatArg(const std::string& s) { return MakeFormatArg(s.c_str()); }
inline FormatArg MakeFormatArg(const std::u16string& s) { return MakeFormatArg(s.c_str()); }
inline FormatArg MakeFormatArg(std::nullptr_t) { FormatArg a{FormatArg::Kind::kPointer}; a.pointer = nullptr; return a; }

template <class T>
struct FormatIntegerOf { using type = T; };
template <class T>
  requires std::is_enum_v<T>
struct FormatIntegerOf<T> { using type = std::underlying_type_t<T>; };

template <class T>
FormatArg MakeFormatArg(T value) requires(std::is_integral_v<T> || std::is_enum_v<T>) {
  using U = typename FormatIntegerOf<T>::type;
  FormatArg a{FormatArg::Kind::kInt};
  a.is_signed = std::is_signed_v<U>;
  a.bytes = static_cast<std::uint8_t>(sizeof(U));
  a.bits = static_cast<std::uint64_t>(static_cast<std::int64_t>(static_cast<U>(value)));
  if (!a.is_signed) a.bits = static_cast<std::uint64_t>(static_cast<U>(value));
  return a;
}

template <class T>
FormatArg MakeFormatArg(T value) requires std::is_floating_point_v<T> {
  FormatArg a{FormatArg::Kind::kDouble};
  a.real = static_cast<double>(value);
  return a;
}

template <class T>
FormatArg MakeFormatArg(T* p) requires(!std::is_same_v<std::remove_cv_t<T>, char> &&
                                       !std::is_same_v<std::remove_cv_t<T>, char16_t>) {
  FormatArg a{FormatArg::Kind::kPointer};
  a.pointer = reinterpret_cast<const void*>(p);
  return a;
}

// Formats `format` with UTF-16 semantics for %s/%c (narrow with h, wide with l or w).
void AppendFormatWide(std::u16string& out, std::u16string_view format, const FormatArg* args,
                                std::size_t count);
// Formats a narrow (UTF-8) format: %s/%c are narrow, %ls/%S wide; the result is UTF-8.
void AppendFormatNarrow(std::string& out, std::string_view format, const FormatArg* args,
                                  std::size_t count);

template <class... Args>
std::u16string FormatWide(std::u16string_view format, const Args&... args) {
  const FormatArg list[] = {MakeFormatArg(args)..., FormatArg{FormatArg::Kind::kPointer}};
  std::u16string out;
  AppendFormatWide(out, format, list, sizeof...(Args));
  return out;
}

template <class... Args>
std::string FormatNarrow(std::string_view format, const Args&... args) {
  const FormatArg list[] = {MakeFormatArg(args)..., FormatArg{FormatArg::Kind::kPointer}};
  std::string out;
  AppendFormatNarrow(out, format, list, sizeof...(Args));
  return out;
}

}  // namespace zr::os
