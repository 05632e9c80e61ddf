#include "util/text.h"

#include <algorithm>

namespace VBG::Text {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

void appendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

void appendUtf16(std::u16string& out, char32_t cp) {
    if (cp < 0x10000) {
        out.push_back(static_cast<char16_t>(cp));
    } else {
        cp -= 0x10000;
        out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
        out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    }
}

}  // namespace

std::u16string Utf8ToUtf16(std::string_view in) {
    std::u16string out;
    out.reserve(in.size());
    size_t i = 0;
    while (i < in.size()) {
        const auto b0 = static_cast<unsigned char>(in[i]);
        size_t len = 0;
        char32_t cp = 0;
        char32_t minimum = 0;
        if (b0 < 0x80) {
            len = 1;
            cp = b0;
        } else if ((b0 & 0xE0) == 0xC0) {
            len = 2;
            cp = b0 & 0x1F;
            minimum = 0x80;
        } else if ((b0 & 0xF0) == 0xE0) {
            len = 3;
            cp = b0 & 0x0F;
            minimum = 0x800;
        } else if ((b0 & 0xF8) == 0xF0) {
            len = 4;
            cp = b0 & 0x07;
            minimum = 0x10000;
        } else {
            appendUtf16(out, kReplacement);
            ++i;
            continue;
        }
        // A broken sequence is replaced once, over its lead byte and the continuation bytes that
        // follow it.
        size_t consumed = 1;
        while (consumed < len && i + consumed < in.size() &&
               (static_cast<unsigned char>(in[i + consumed]) & 0xC0) == 0x80) {
            cp = (cp << 6) | (static_cast<unsigned char>(in[i + consumed]) & 0x3F);
            ++consumed;
        }
        if (consumed < len || cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            appendUtf16(out, kReplacement);
            i += consumed;
            continue;
        }
        appendUtf16(out, cp);
        i += len;
    }
    return out;
}

std::string Utf16ToUtf8(std::u16string_view in) {
    std::string out;
    out.reserve(in.size());
    for (size_t i = 0; i < in.size(); ++i) {
        char32_t cp = in[i];
        if (cp >= 0xD800 && cp <= 0xDBFF) {
            if (i + 1 < in.size() && in[i + 1] >= 0xDC00 && in[i + 1] <= 0xDFFF) {
                cp = 0x10000 + ((cp - 0xD800) << 10) + (in[i + 1] - 0xDC00);
                ++i;
            } else {
                cp = kReplacement;
            }
        } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            cp = kReplacement;
        }
        appendUtf8(out, cp);
    }
    return out;
}

std::string FieldToUtf8(const char16_t* field, size_t capacity) {
    size_t n = 0;
    while (n < capacity && field[n] != 0) {
        ++n;
    }
    return Utf16ToUtf8(std::u16string_view(field, n));
}

bool CopyToField(char16_t* field, size_t capacity, std::u16string_view text, size_t maxChars) {
    const size_t limit = std::min(maxChars, capacity - 1);
    if (text.size() > limit) {
        return false;
    }
    std::copy(text.begin(), text.end(), field);
    field[text.size()] = 0;
    return true;
}

bool CopyToField(char16_t* field, size_t capacity, std::string_view utf8, size_t maxChars) {
    return CopyToField(field, capacity, std::u16string_view(Utf8ToUtf16(utf8)), maxChars);
}

std::string LogExcerpt(std::string_view text, size_t maxBytes) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(std::min(text.size(), maxBytes) + 24);
    size_t i = 0;
    for (; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        // Cut before the first byte of a character, not inside a UTF-8 sequence (a run of stray
        // continuation bytes is cut anyway).
        if (out.size() >= maxBytes && ((c & 0xC0) != 0x80 || out.size() >= maxBytes + 4)) {
            break;
        }
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7F) {
            out += "\\x";
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 0xF]);
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    if (i < text.size()) {
        out += " ... (truncated)";
    }
    return out;
}

}  // namespace VBG::Text
