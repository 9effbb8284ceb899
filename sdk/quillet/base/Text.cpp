#include "quillet/base/Text.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <string>
#include <vector>

#include <unicode/ubrk.h>
#include <unicode/ustring.h>
#include <unicode/utypes.h>
#include <unicode/uvernum.h>

#include "quillet/base/Fatal.h"

#ifndef QUILLET_ICU_LINKED
#include <dlfcn.h>

// ICU's C functions under their versioned names, as the linker would see them.
#define QUILLET_ICU_NAME_TEXT(name) #name
#define QUILLET_ICU_NAME(name) QUILLET_ICU_NAME_TEXT(name)
#endif

namespace quillet::Text {
namespace {

constexpr UChar32 kReplacement = 0xFFFD;

// ICU is loaded on the first text that is not ASCII: most texts are, and a program that only
// reads and writes TC Strings then starts without mapping it. A program linked as one static
// executable cannot load it (a second C library would come with it), so it links ICU in instead
// and builds this file with QUILLET_ICU_LINKED.
struct Icu {
  decltype(&u_strFromUTF8WithSub) fromUtf8;
  decltype(&u_strToUTF8WithSub) toUtf8;
  decltype(&u_strToUpper) toUpper;
  decltype(&ubrk_open) open;
  decltype(&ubrk_close) close;
  decltype(&ubrk_setText) setText;
  decltype(&ubrk_first) first;
  decltype(&ubrk_next) next;
};

#ifdef QUILLET_ICU_LINKED
const Icu& icu() {
  static constexpr Icu linked{
      &u_strFromUTF8WithSub, &u_strToUTF8WithSub, &u_strToUpper, &ubrk_open,
      &ubrk_close,           &ubrk_setText,       &ubrk_first,   &ubrk_next};
  return linked;
}
#else
template <class Function>
Function icuFunction(void* library, const char* name) {
  void* function = dlsym(library, name);
  if (function == nullptr) fatalError(std::string("ICU has no ") + name);
  return reinterpret_cast<Function>(
      function);  // NOLINT(cppcoreguidelines-pro-type-reinterpret-cast)
}

const Icu& icu() {
  static const Icu loaded = [] {
    void* library = dlopen("libicuuc.so." U_ICU_VERSION_SHORT, RTLD_NOW | RTLD_LOCAL);
    // Runs once, under the static's initialisation guard.
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    if (library == nullptr) fatalError(std::string("cannot load ICU: ") + dlerror());
#define QUILLET_ICU(name) icuFunction<decltype(&(name))>(library, QUILLET_ICU_NAME(name))
    return Icu{QUILLET_ICU(u_strFromUTF8WithSub), QUILLET_ICU(u_strToUTF8WithSub),
               QUILLET_ICU(u_strToUpper),         QUILLET_ICU(ubrk_open),
               QUILLET_ICU(ubrk_close),           QUILLET_ICU(ubrk_setText),
               QUILLET_ICU(ubrk_first),           QUILLET_ICU(ubrk_next)};
#undef QUILLET_ICU
  }();
  return loaded;
}
#endif

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::u16string toUtf16(std::string_view utf8) {
  std::u16string out(utf8.size(), u'\0');  // UTF-16 never needs more units than UTF-8 has bytes
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  icu().fromUtf8(out.data(), static_cast<int32_t>(out.size()), &length, utf8.data(),
                 static_cast<int32_t>(utf8.size()), kReplacement, nullptr, &status);
  if (U_FAILURE(status)) fatalError("UTF-8 to UTF-16 conversion failed");
  out.resize(static_cast<std::size_t>(length));
  return out;
}

std::string toUtf8(std::u16string_view utf16) {
  std::string out(utf16.size() * 3, '\0');  // one UTF-16 unit needs at most three UTF-8 bytes
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  icu().toUtf8(out.data(), static_cast<int32_t>(out.size()), &length, utf16.data(),
               static_cast<int32_t>(utf16.size()), kReplacement, nullptr, &status);
  if (U_FAILURE(status)) fatalError("UTF-16 to UTF-8 conversion failed");
  out.resize(static_cast<std::size_t>(length));
  return out;
}

struct BreakIteratorCloser {
  void operator()(UBreakIterator* iterator) const noexcept { icu().close(iterator); }
};

// Opening a character break iterator loads rules and costs microseconds, so each thread keeps one.
UBreakIterator& characterBreaks() {
  thread_local std::unique_ptr<UBreakIterator, BreakIteratorCloser> iterator = [] {
    UErrorCode status = U_ZERO_ERROR;
    UBreakIterator* opened = icu().open(UBRK_CHARACTER, "", nullptr, 0, &status);
    if (U_FAILURE(status)) fatalError("ICU character break iterator unavailable");
    return std::unique_ptr<UBreakIterator, BreakIteratorCloser>(opened);
  }();
  return *iterator;
}

}  // namespace

std::string prefixCharacters(std::string_view utf8, std::size_t count) {
  // Between two ASCII characters there is always a cluster boundary, except inside "\r\n"; so
  // when the first count + 1 bytes are ASCII without a CR, the first count bytes are the answer.
  const std::string_view head = utf8.substr(0, count + 1);
  if (isAscii(head) && head.find('\r') == std::string_view::npos) {
    return std::string(utf8.substr(0, count));
  }
  const std::u16string text = toUtf16(utf8);
  UBreakIterator& breaks = characterBreaks();
  UErrorCode status = U_ZERO_ERROR;
  icu().setText(&breaks, reinterpret_cast<const UChar*>(text.data()),
                static_cast<int32_t>(text.size()), &status);
  if (U_FAILURE(status)) fatalError("ICU break iterator rejected its text");
  int32_t end = icu().first(&breaks);
  for (std::size_t taken = 0; taken < count; ++taken) {
    const int32_t next = icu().next(&breaks);
    if (next == UBRK_DONE) break;
    end = next;
  }
  // Detach the iterator from the local text before that text goes away.
  static constexpr UChar kEmpty[1] = {0};
  icu().setText(&breaks, kEmpty, 0, &status);
  return toUtf8(std::u16string_view(text).substr(0, static_cast<std::size_t>(end)));
}

std::string uppercased(std::string_view utf8) {
  if (isAscii(utf8)) {
    std::string out(utf8);
    for (char& c : out) {
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return out;
  }
  const std::u16string text = toUtf16(utf8);
  std::u16string upper(text.size() * 3 + 4, u'\0');  // full mappings grow a unit to at most three
  UErrorCode status = U_ZERO_ERROR;
  const int32_t length = icu().toUpper(
      reinterpret_cast<UChar*>(upper.data()), static_cast<int32_t>(upper.size()),
      reinterpret_cast<const UChar*>(text.data()), static_cast<int32_t>(text.size()), "", &status);
  if (U_FAILURE(status)) fatalError("ICU upper-case mapping failed");
  upper.resize(static_cast<std::size_t>(length));
  return toUtf8(upper);
}

std::optional<std::int64_t> parseInteger(std::string_view text) noexcept {
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    if (!text.empty() && text.front() == '-') return std::nullopt;
  }
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::string printedList(std::span<const std::int64_t> numbers) {
  std::string out = "[";
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    if (i > 0) out += ", ";
    out += std::to_string(numbers[i]);
  }
  return out + "]";
}

std::string printedList(std::span<const std::string_view> texts) {
  std::string out = "[";
  for (std::size_t i = 0; i < texts.size(); ++i) {
    if (i > 0) out += ", ";
    out.append("\"").append(texts[i]).append("\"");
  }
  return out + "]";
}

}  // namespace quillet::Text
