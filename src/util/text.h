// Conversions between the UTF-16 paths of the host-visible records and the UTF-8 strings used
// inside the library.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace VBG::Text {

// Invalid sequences become U+FFFD; nothing throws.
std::u16string Utf8ToUtf16(std::string_view utf8);
std::string Utf16ToUtf8(std::u16string_view utf16);

// Reads a NUL-terminated UTF-16 field of at most `capacity` code units.
std::string FieldToUtf8(const char16_t* field, size_t capacity);

// Writes `text` into a fixed UTF-16 field of `capacity` code units, NUL-terminated. Text that does
// not fit in `maxChars` code units (which must leave room for the terminator) is not copied and
// the field is left as it was; returns whether it was copied.
bool CopyToField(char16_t* field, size_t capacity, std::u16string_view text, size_t maxChars);
bool CopyToField(char16_t* field, size_t capacity, std::string_view utf8, size_t maxChars);

// Outside text as it may appear in one log record: control characters escaped ("\n", "\x1b"), so
// that it can never start a record of its own, and cut at a character boundary once about
// `maxBytes` bytes are written, with " ... (truncated)" appended.
std::string LogExcerpt(std::string_view text, size_t maxBytes);

}  // namespace VBG::Text
