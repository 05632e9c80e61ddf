#include "util/bounded_json.h"

#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <cstring>
#include <string>

namespace VBG::Json {
namespace {

// Hands every event to the document and refuses the one that opens a level past kMaxDepth. The
// iterative parser keeps its own stack on the heap, so the count is the only depth limit.
class DepthLimit {
  public:
    explicit DepthLimit(rapidjson::Document& doc) : doc_(doc) {}

    bool Null() { return doc_.Null(); }
    bool Bool(bool b) { return doc_.Bool(b); }
    bool Int(int i) { return doc_.Int(i); }
    bool Uint(unsigned u) { return doc_.Uint(u); }
    bool Int64(int64_t i) { return doc_.Int64(i); }
    bool Uint64(uint64_t u) { return doc_.Uint64(u); }
    bool Double(double d) { return doc_.Double(d); }
    bool RawNumber(const char* s, rapidjson::SizeType n, bool copy) {
        return doc_.RawNumber(s, n, copy);
    }
    bool String(const char* s, rapidjson::SizeType n, bool copy) { return doc_.String(s, n, copy); }
    bool Key(const char* s, rapidjson::SizeType n, bool copy) { return doc_.Key(s, n, copy); }
    bool StartObject() { return enter() && doc_.StartObject(); }
    bool EndObject(rapidjson::SizeType n) {
        --depth_;
        return doc_.EndObject(n);
    }
    bool StartArray() { return enter() && doc_.StartArray(); }
    bool EndArray(rapidjson::SizeType n) {
        --depth_;
        return doc_.EndArray(n);
    }

    bool tooDeep() const { return tooDeep_; }

  private:
    bool enter() {
        if (++depth_ > kMaxDepth) {
            tooDeep_ = true;
            return false;
        }
        return true;
    }

    rapidjson::Document& doc_;
    unsigned depth_ = 0;
    bool tooDeep_ = false;
};

}  // namespace

ParseResult Parse(std::string_view text, rapidjson::Document& doc) {
    doc.SetNull();
    if (text.size() > kMaxBytes) {
        return ParseResult::TooLarge;
    }
    rapidjson::MemoryStream stream(text.data(), text.size());
    bool tooDeep = false;
    bool parsed = false;
    auto generate = [&](rapidjson::Document& target) {
        DepthLimit handler(target);
        rapidjson::Reader reader;
        parsed = !reader.Parse<rapidjson::kParseIterativeFlag>(stream, handler).IsError();
        tooDeep = handler.tooDeep();
        return parsed;
    };
    doc.Populate(generate);
    if (tooDeep) {
        doc.SetNull();
        return ParseResult::TooDeep;
    }
    if (!parsed) {
        doc.SetNull();
        return ParseResult::Invalid;
    }
    return ParseResult::Ok;
}

ParseResult ParseText(const char* text, rapidjson::Document& doc) {
    return Parse(std::string_view(text, strnlen(text, kMaxBytes + 1)), doc);
}

std::string Describe(ParseResult result) {
    switch (result) {
        case ParseResult::Ok:
            return {};
        case ParseResult::TooLarge:
            return "larger than " + std::to_string(kMaxBytes) + " bytes";
        case ParseResult::TooDeep:
            return "nested deeper than " + std::to_string(kMaxDepth) + " levels";
        case ParseResult::Invalid:
            break;
    }
    return "not valid JSON";
}

}  // namespace VBG::Json
