#include "config/service.h"

#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "log/read_line.h"

const char kServiceConfigPath[] = "/var/packages/Fernbox/etc/tandem/service.conf";
const char kServiceLockPath[] = "/var/packages/Fernbox/etc/tandem/setting.conf.lock";

namespace {

struct ErrorName {
  int code;
  const char* name;
};

const ErrorName kErrorNames[] = {
    {kConfigNoError, "NO_ERROR"},
    {kSectionMissingLeftBracket, "SECTION_MISSING_LEFT_BRACKET"},
    {kSectionMissingRightBracket, "SECTION_MISSING_RIGHT_BRACKET"},
    {kSectionMissingSection, "SECTION_MISSING_SECTION"},
    {kSectionIllegalCharacter, "SECTION_ILLEGAL_CHARACTER"},
    {kSectionTooLong, "SECTION_TOO_LONG"},
    {kSectionUndefinedSection, "SECTION_UNDEFINED_SECTION"},
    {kKeyMissingKey, "KEY_MISSING_KEY"},
    {kKeyIllegalCharacter, "KEY_ILLEGAL_CHARACTER"},
    {kKeyTooLong, "KEY_TOO_LONG"},
    {kKeyUndefinedKey, "KEY_UNDEFINED_KEY"},
    {kValueNumericMissingIntegerPart, "VALUE_NUMERIC_MISSING_INTEGER_PART"},
    {kValueNumericMissingFractionalPart, "VALUE_NUMERIC_MISSING_FRACTIONAL_PART"},
    {kValueNumericMissingValue, "VALUE_NUMERIC_MISSING_VALUE"},
    {kValueNumericIllegalSyntax, "VALUE_NUMERIC_ILLEGAL_SYNTAX"},
    {kValueStringMissingLeftQuote, "VALUE_STRING_MISSING_LEFT_QUOTE"},
    {kValueStringMissingRightQuote, "VALUE_STRING_MISSING_RIGHT_QUOTE"},
    {kValueStringEscapeIllegalSequence, "VALUE_STRING_ESCAPE_ILLEGAL_SEQUENCE"},
    {kValueStringEscapeIllegalHexValue, "VALUE_STRING_ESCAPE_ILLEGAL_HEX_VALUE"},
    {kValueStringEscapeIllegalOctValue, "VALUE_STRING_ESCAPE_ILLEGAL_OCT_VALUE"},
    {kValueStringIllegalCharacter, "VALUE_STRING_ILLEGAL_CHARACTER"},
    {kValueStringEmpty, "VALUE_STRING_EMPTY"},
    {kValueSetMissingSeparater, "VALUE_SET_MISSING_SEPARATER"},
    {kValueTooLong, "VALUE_TOO_LONG"},
    {kLineNotEnded, "LINE_NOT_ENDED"},
    {kLineNotExpected, "LINE_NOT_EXPECTED"},
    {kInternalError, "INTERNAL_ERROR"},
};

// A number text this long or longer is refused.
constexpr size_t kMaxNumberText = 4096;

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f' || c == '\r'; }
bool IsLineEnd(char c) { return c == '\0' || c == '\n'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || IsDigit(c) || c == '_' || c == '-';
}
bool IsOctal(char c) { return c >= '0' && c <= '7'; }

int HexValue(char c) {
  if (IsDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The byte a one-letter escape stands for, or -1.
int SimpleEscape(char c) {
  switch (c) {
    case 'a': return '\a';
    case 'b': return '\b';
    case 'f': return '\f';
    case 'n': return '\n';
    case 'r': return '\r';
    case 't': return '\t';
    case 'v': return '\v';
    case '\'': return '\'';
    case '"': return '"';
    case '\\': return '\\';
    case '?': return '?';
    default: return -1;
  }
}

const char* SkipBlanks(const char* p) {
  while (IsBlank(*p)) ++p;
  return p;
}

// Nothing but blanks and an optional comment may follow a complete value.
int ExpectLineEnd(const char* p) {
  p = SkipBlanks(p);
  return (IsLineEnd(*p) || *p == '#') ? kConfigNoError : kLineNotEnded;
}

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};

// What the next line may be.
enum class Expect {
  kSection,       // before the first section: only a section header
  kAny,           // a section header or a key line
  kContinuation,  // a set value ended with ",": the next line continues it
};

class Parser {
 public:
  Parser(const ConfigSchema& schema, void* target)
      : schema_(schema), target_(static_cast<char*>(target)) {}

  // Parses one line (blanks, comments and empty lines included).
  int Line(const char* line);
  int unknown_keys() const { return unknown_keys_; }

 private:
  int Section(const char* p);
  int Key(const char* p);
  int Number(const char* p, const ConfigKey& key, void* field);
  int SetElements(const char* p, ConfigStringSet* set);
  // Decodes the quoted string at *p (which is at the opening quote) into
  // `out`, leaving *p past the closing quote.
  int QuotedString(const char** p, std::string* out);
  int Escape(const char** p, std::string* out);

  const ConfigSchema& schema_;
  char* target_;
  Expect expect_ = Expect::kSection;
  const ConfigSection* section_ = nullptr;   // the current section
  ConfigStringSet* pending_set_ = nullptr;   // the set awaiting a continuation
  int unknown_keys_ = 0;
};

int Parser::Line(const char* line) {
  const char* p = SkipBlanks(line);
  if (IsLineEnd(*p) || *p == '#') return kConfigNoError;
  if (expect_ == Expect::kContinuation) {
    if (*p != '"') return kLineNotExpected;
    return SetElements(p, pending_set_);
  }
  if (*p == '[') return Section(p + 1);
  if (expect_ == Expect::kSection) return kLineNotExpected;
  return Key(p);
}

int Parser::Section(const char* p) {
  const char* name = p;
  while (*p != ']') {
    if (IsLineEnd(*p) || *p == '#') return kSectionMissingRightBracket;
    if (!IsNameChar(*p)) return kSectionIllegalCharacter;
    if (static_cast<size_t>(p - name) >= kConfigMaxName) return kSectionTooLong;
    ++p;
  }
  size_t len = static_cast<size_t>(p - name);
  if (len == 0) return kSectionMissingSection;
  int ended = ExpectLineEnd(p + 1);
  if (ended != kConfigNoError) return ended;
  for (int i = 0; i < schema_.section_count; ++i) {
    const ConfigSection& s = schema_.sections[i];
    if (strlen(s.name) == len && memcmp(s.name, name, len) == 0) {
      section_ = &s;
      expect_ = Expect::kAny;
      return kConfigNoError;
    }
  }
  return kSectionUndefinedSection;
}

int Parser::Key(const char* p) {
  assert(section_ != nullptr);
  const char* name = p;
  if (!IsNameChar(*p)) return kKeyMissingKey;
  while (IsNameChar(*p)) {
    if (static_cast<size_t>(p - name) >= kConfigMaxName) return kKeyTooLong;
    ++p;
  }
  size_t len = static_cast<size_t>(p - name);
  p = SkipBlanks(p);
  if (*p != '=') return kKeyIllegalCharacter;
  p = SkipBlanks(p + 1);

  const ConfigKey* key = nullptr;
  for (int i = 0; i < section_->key_count; ++i) {
    const ConfigKey& k = section_->keys[i];
    if (strlen(k.name) == len && memcmp(k.name, name, len) == 0) {
      key = &k;
      break;
    }
  }
  if (key == nullptr) {
    // The rest of the line is not looked at.
    printf("warning: unknown key (%.*s)\n", static_cast<int>(len), name);
    ++unknown_keys_;
    return kConfigNoError;
  }

  void* field = target_ + section_->offset + key->offset;
  switch (key->type) {
    case kConfigInt32:
    case kConfigUint64:
      return Number(p, *key, field);
    case kConfigString: {
      if (*p != '"') return kValueStringMissingLeftQuote;
      std::string value;
      int rc = QuotedString(&p, &value);
      if (rc != kConfigNoError) return rc;
      rc = ExpectLineEnd(p);
      if (rc != kConfigNoError) return rc;
      char* copy = static_cast<char*>(malloc(value.size() + 1));
      if (copy == nullptr) return kInternalError;
      memcpy(copy, value.c_str(), value.size() + 1);
      char** slot = static_cast<char**>(field);
      free(*slot);
      *slot = copy;
      return kConfigNoError;
    }
    case kConfigStringSet:
      return SetElements(p, static_cast<ConfigStringSet*>(field));
    default:
      return kInternalError;
  }
}

int Parser::Number(const char* p, const ConfigKey& key, void* field) {
  const char* start = p;
  bool sign = (*p == '+' || *p == '-');
  if (sign) ++p;
  if (!IsDigit(*p)) {
    if (sign || *p == '.') return kValueNumericMissingIntegerPart;
    return kValueNumericMissingValue;
  }
  if (*p == '0') {
    ++p;  // a leading zero stands alone
  } else {
    while (IsDigit(*p)) ++p;
  }
  if (*p == '.') {
    ++p;
    if (!IsDigit(*p)) return kValueNumericMissingFractionalPart;
    while (IsDigit(*p)) ++p;
  }
  if (!IsBlank(*p) && !IsLineEnd(*p) && *p != '#') return kValueNumericIllegalSyntax;
  if (static_cast<size_t>(p - start) >= kMaxNumberText) return kValueTooLong;
  int rc = ExpectLineEnd(p);
  if (rc != kConfigNoError) return rc;

  std::string text(start, p);
  if (key.type == kConfigInt32) {
    *static_cast<int32_t*>(field) = static_cast<int32_t>(strtol(text.c_str(), nullptr, 10));
  } else {
    *static_cast<uint64_t*>(field) = static_cast<uint64_t>(strtoull(text.c_str(), nullptr, 10));
  }
  return kConfigNoError;
}

int Parser::SetElements(const char* p, ConfigStringSet* set) {
  expect_ = Expect::kAny;
  pending_set_ = nullptr;
  for (;;) {
    if (*p != '"') return kValueStringMissingLeftQuote;
    std::string value;
    int rc = QuotedString(&p, &value);
    if (rc != kConfigNoError) return rc;
    if (ConfigStringSetAppend(set, value.data(), value.size()) != 0) return kInternalError;
    p = SkipBlanks(p);
    if (IsLineEnd(*p) || *p == '#') return kConfigNoError;
    if (*p == '"') return kValueSetMissingSeparater;
    if (*p != ',') return kLineNotEnded;
    p = SkipBlanks(p + 1);
    if (IsLineEnd(*p) || *p == '#') {
      expect_ = Expect::kContinuation;
      pending_set_ = set;
      return kConfigNoError;
    }
  }
}

int Parser::QuotedString(const char** pp, std::string* out) {
  const char* p = *pp;
  assert(*p == '"');
  ++p;
  out->clear();
  while (*p != '"') {
    unsigned char c = static_cast<unsigned char>(*p);
    if (IsLineEnd(*p)) return kValueStringMissingRightQuote;
    if (c < 0x20 || c == 0x7F) return kValueStringIllegalCharacter;
    if (c == '\\') {
      int rc = Escape(&p, out);
      if (rc != kConfigNoError) return rc;
    } else {
      out->push_back(*p++);
    }
    if (out->size() > kConfigMaxValue) return kValueTooLong;
  }
  if (out->empty()) return kValueStringEmpty;
  *pp = p + 1;
  return kConfigNoError;
}

int Parser::Escape(const char** pp, std::string* out) {
  const char* p = *pp + 1;  // past the backslash
  int simple = SimpleEscape(*p);
  if (simple >= 0) {
    out->push_back(static_cast<char>(simple));
    *pp = p + 1;
    return kConfigNoError;
  }
  if (*p == 'x') {
    int high = HexValue(p[1]);
    int low = high < 0 ? -1 : HexValue(p[2]);
    if (low < 0) return kValueStringIllegalCharacter;
    out->push_back(static_cast<char>(high * 16 + low));
    *pp = p + 3;
    return kConfigNoError;
  }
  if (*p >= '0' && *p <= '3' && IsOctal(p[1]) && IsOctal(p[2])) {
    out->push_back(static_cast<char>((p[0] - '0') * 64 + (p[1] - '0') * 8 + (p[2] - '0')));
    *pp = p + 3;
    return kConfigNoError;
  }
  return kValueStringIllegalCharacter;
}

}  // namespace

const char* ConfigErrorName(int code) {
  for (const ErrorName& e : kErrorNames) {
    if (e.code == code) return e.name;
  }
  return "Unknown error";
}

int ConfigStringSetAppend(ConfigStringSet* set, const char* text, size_t len) {
  if (set->count == set->capacity) {
    size_t capacity = set->capacity == 0 ? 4 : set->capacity * 2;
    char** items = static_cast<char**>(realloc(set->items, capacity * sizeof(char*)));
    if (items == nullptr) return -1;
    set->items = items;
    set->capacity = capacity;
  }
  char* copy = static_cast<char*>(malloc(len + 1));
  if (copy == nullptr) return -1;
  memcpy(copy, text, len);
  copy[len] = '\0';
  set->items[set->count++] = copy;
  return 0;
}

void ConfigStringSetClear(ConfigStringSet* set) {
  for (size_t i = 0; i < set->count; ++i) free(set->items[i]);
  free(set->items);
  set->items = nullptr;
  set->count = 0;
  set->capacity = 0;
}

void ConfigStringClear(char** text) {
  free(*text);
  *text = nullptr;
}

int ParseConfigFile(const char* path, const ConfigSchema& schema, void* target) {
  std::unique_ptr<FILE, FileCloser> file(fopen(path, "r"));
  if (!file) return kParseFailed;
  return ParseConfigStream(file.get(), schema, target);
}

int ParseConfigStream(FILE* file, const ConfigSchema& schema, void* target) {
  Parser parser(schema, target);
  std::string line;
  int line_number = 0;
  for (;;) {
    const LineRead read = ReadLine(file, kConfigMaxLine, &line);
    if (read == LineRead::kEnd) break;
    ++line_number;
    int rc = read == LineRead::kTooLong ? kValueTooLong : parser.Line(line.c_str());
    if (rc != kConfigNoError) {
      fprintf(stderr, "parser: %s at line %d\n", ConfigErrorName(rc), line_number);
      return kParseFailed;
    }
  }
  return parser.unknown_keys() > 0 ? kParseUnknownKeys : kParseOk;
}
