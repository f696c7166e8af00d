#include "pki/dn.h"

#include <cstring>
#include <string>
#include <vector>

#include "pki/internal/der.h"
#include "pki/internal/dn.h"
#include "pki/internal/guard.h"

namespace {

using kv::pki::DnAttribute;

bool IsPrintableChar(unsigned char c) {
  // PrintableString without the apostrophe, which this toolkit's
  // PrintableString class refuses: such values become UTF8String.
  if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) return true;
  return c != 0 && std::strchr(" ()+,-./:=?", c) != nullptr;
}

bool IsPrintable(const std::string& s) {
  for (unsigned char c : s)
    if (!IsPrintableChar(c)) return false;
  return !s.empty();
}

bool IsAscii(const std::string& s) {
  for (unsigned char c : s)
    if (c >= 0x80) return false;
  return true;
}

// Well-formed UTF-8: shortest forms only, no surrogates, at most U+10FFFF.
bool IsUtf8(const std::string& s) {
  size_t i = 0, n = s.size();
  while (i < n) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    unsigned extra;
    uint32_t code;
    if (c < 0x80) {
      ++i;
      continue;
    } else if (c >= 0xC2 && c <= 0xDF) {
      extra = 1;
      code = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      extra = 2;
      code = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      extra = 3;
      code = c & 0x07;
    } else {
      return false;
    }
    if (i + extra >= n) return false;
    for (unsigned k = 1; k <= extra; ++k) {
      unsigned char d = static_cast<unsigned char>(s[i + k]);
      if ((d & 0xC0) != 0x80) return false;
      code = (code << 6) | (d & 0x3F);
    }
    if ((extra == 2 && code < 0x800) || (extra == 3 && code < 0x10000) || code > 0x10FFFF ||
        (code >= 0xD800 && code <= 0xDFFF)) {
      return false;
    }
    i += extra + 1;
  }
  return true;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool EqualsIgnoreCase(const std::string& a, const char* b) {
  if (a.size() != std::strlen(b)) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'a' && x <= 'z') x = static_cast<char>(x - 'a' + 'A');
    if (y >= 'a' && y <= 'z') y = static_cast<char>(y - 'a' + 'A');
    if (x != y) return false;
  }
  return true;
}

// Dotted identifier as RFC 4512 numericoid writes it, and one our OID class
// can encode.
bool IsDottedOid(const std::string& s) {
  std::vector<std::string> arcs(1);
  for (char c : s) {
    if (c == '.') {
      arcs.emplace_back();
    } else if (c >= '0' && c <= '9') {
      arcs.back() += c;
    } else {
      return false;
    }
  }
  if (arcs.size() < 2) return false;
  for (const std::string& a : arcs)
    if (a.empty() || (a.size() > 1 && a[0] == '0') || a.size() > 19) return false;
  if (arcs[0].size() != 1 || arcs[0][0] > '2') return false;
  if (arcs[0][0] < '2' && (arcs[1].size() > 2 || std::stoi(arcs[1]) > 39)) return false;
  try {
    kv::pki::Der(AsnOid(s.c_str()));
  } catch (const MiException&) {
    return false;
  }
  return true;
}

class Parser {
 public:
  Parser(const char* p, size_t n) : p_(p), n_(n) {}

  int Run(Name& name) {
    auto& rdns = kv::pki::Rdns(name);
    rdns.Clear();
    SkipSpaces();
    if (AtEnd()) return 0;
    std::vector<AsnSetOf<AttributeTypeAndDistinguishedValue>> parsed;
    for (;;) {
      AsnSetOf<AttributeTypeAndDistinguishedValue> rdn;
      for (;;) {
        AttributeTypeAndDistinguishedValue ava;
        int rv = Attribute(ava);
        if (rv != 0) return rv;
        rdn.Add(ava);
        if (AtEnd() || p_[i_] != '+') break;
        ++i_;
      }
      parsed.push_back(rdn);
      if (AtEnd()) break;
      if (p_[i_] != ',') return KV_ERR_SYNTAX;
      ++i_;
    }
    // The text names the last RDN first.
    for (size_t k = parsed.size(); k-- > 0;) rdns.Add(parsed[k]);
    return 0;
  }

 private:
  bool AtEnd() const { return i_ >= n_; }
  void SkipSpaces() {
    while (!AtEnd() && p_[i_] == ' ') ++i_;
  }

  int Attribute(AttributeTypeAndDistinguishedValue& ava) {
    SkipSpaces();
    std::string keyword;
    while (!AtEnd() && p_[i_] != '=' && p_[i_] != ' ' && p_[i_] != ',' && p_[i_] != '+') {
      keyword += p_[i_++];
    }
    SkipSpaces();
    if (keyword.empty() || AtEnd() || p_[i_] != '=') return KV_ERR_SYNTAX;
    ++i_;
    std::string oid;
    unsigned char first = static_cast<unsigned char>(keyword[0]);
    if (first >= '0' && first <= '9') {
      if (!IsDottedOid(keyword)) return KV_ERR_SYNTAX;
      oid = keyword;
    } else {
      for (char c : keyword) {
        bool ok =
            (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
        if (!ok) return KV_ERR_SYNTAX;
      }
      if ((first < 'A' || first > 'Z') && (first < 'a' || first > 'z')) return KV_ERR_SYNTAX;
      if (EqualsIgnoreCase(keyword, "S")) {
        oid = "2.5.4.8";
      } else if (EqualsIgnoreCase(keyword, "emailAddress")) {
        oid = kv::pki::kEmailOid;
      } else {
        for (unsigned k = 0; k < kv::pki::kDnAttributeCount && oid.empty(); ++k)
          if (EqualsIgnoreCase(keyword, kv::pki::kDnAttributes[k].keyword))
            oid = kv::pki::kDnAttributes[k].oid;
      }
      if (oid.empty()) return KV_ERR_UNSUPPORTED;
    }
    ava.SetType(AsnOid(oid.c_str()));
    SkipSpaces();
    if (!AtEnd() && p_[i_] == '#') return HexValue(ava);
    return StringValue(oid, ava);
  }

  int HexValue(AttributeTypeAndDistinguishedValue& ava) {
    ++i_;
    std::string der;
    while (!AtEnd() && p_[i_] != ' ' && p_[i_] != ',' && p_[i_] != '+') {
      if (i_ + 1 >= n_) return KV_ERR_SYNTAX;
      int hi = ::HexValue(p_[i_]), lo = ::HexValue(p_[i_ + 1]);
      if (hi < 0 || lo < 0) return KV_ERR_SYNTAX;
      der += static_cast<char>(hi * 16 + lo);
      i_ += 2;
    }
    SkipSpaces();
    if (!AtEnd() && p_[i_] != ',' && p_[i_] != '+') return KV_ERR_SYNTAX;
    AsnAny value;
    if (!kv::pki::DecodeWhole(value, reinterpret_cast<const unsigned char*>(der.data()),
                              static_cast<unsigned>(der.size())) ||
        !value.HasData()) {
      return KV_ERR_SYNTAX;
    }
    ava.SetValue(value);
    return 0;
  }

  int StringValue(const std::string& oid, AttributeTypeAndDistinguishedValue& ava) {
    std::string value;
    size_t keep = 0;  // length without the unescaped spaces at the end
    while (!AtEnd() && p_[i_] != ',' && p_[i_] != '+') {
      char c = p_[i_++];
      if (c == '\\') {
        if (AtEnd()) return KV_ERR_SYNTAX;
        char e = p_[i_++];
        if (std::strchr(" \"#+,;<=>\\", e) != nullptr) {
          value += e;
        } else {
          int hi = ::HexValue(e), lo = AtEnd() ? -1 : ::HexValue(p_[i_]);
          if (hi < 0 || lo < 0) return KV_ERR_SYNTAX;
          ++i_;
          value += static_cast<char>(hi * 16 + lo);
        }
        keep = value.size();
      } else if (c == '"' || c == ';' || c == '<' || c == '>') {
        return KV_ERR_SYNTAX;
      } else {
        value += c;
        if (c != ' ') keep = value.size();
      }
    }
    value.resize(keep);
    if (value.empty() || !IsUtf8(value)) return KV_ERR_SYNTAX;
    if (oid == kv::pki::kEmailOid) {
      if (!IsAscii(value) || value.find('\0') != std::string::npos) return KV_ERR_SYNTAX;
      ava.SetValue(AsnAny(AsnIA5String(value.c_str())));
    } else if (IsPrintable(value)) {
      ava.SetValue(AsnAny(AsnPrintableString(value.c_str())));
    } else if (oid == "2.5.4.6" || oid == "2.5.4.46") {
      return KV_ERR_SYNTAX;
    } else {
      AsnUTF8String text;
      text.SetUtf8(value.c_str());
      // SetUtf8 reads up to a NUL; an escaped \00 would be cut short.
      if (text.GetUtf8().GetLength() != value.size()) return KV_ERR_SYNTAX;
      ava.SetValue(AsnAny(text));
    }
    return 0;
  }

  const char* p_;
  size_t n_;
  size_t i_ = 0;
};

// The value as UTF-8 text when it is a character string that text can carry;
// false otherwise (the caller writes the hex form).
bool ValueText(const AsnObject& value, std::string& text) {
  if (auto* wide = dynamic_cast<const AsnWideString*>(&value)) {
    MiString s = wide->GetUtf8();
    text.assign(s.GetChars() ? s.GetChars() : "", s.GetLength());
    return !text.empty() && IsUtf8(text);
  }
  if (auto* narrow = dynamic_cast<const AsnNarrowString*>(&value)) {
    const MiString& s = narrow->GetData();
    text.assign(s.GetChars() ? s.GetChars() : "", s.GetLength());
    return !text.empty() && IsAscii(text);
  }
  // A narrow string whose characters its class refuses (a PrintableString
  // with an apostrophe, say) is decoded as octets under its own tag.
  if (auto* octets = dynamic_cast<const AsnOctetString*>(&value)) {
    const AsnTag& tag = octets->GetAsnTag();
    bool narrowTag =
        tag.tagClass == ASN_TAG_CLASS_UNIVERSAL &&
        (tag.tagNumber == ASN_TAG_PRINTABLE_STRING || tag.tagNumber == ASN_TAG_IA5_STRING ||
         tag.tagNumber == ASN_TAG_TELETEX_STRING || tag.tagNumber == ASN_TAG_VISIBLE_STRING ||
         tag.tagNumber == ASN_TAG_NUMERIC_STRING);
    if (!narrowTag) return false;
    text = kv::pki::ToStd(octets->GetData());
    return !text.empty() && IsAscii(text);
  }
  return false;
}

// Whether the text form of a value reads back as a value of that attribute;
// otherwise the value is written in hex.
bool ParsesBack(const char* oid, const std::string& text) {
  if (text.find('\0') != std::string::npos) return false;
  if (std::strcmp(oid, kv::pki::kEmailOid) == 0) return IsAscii(text);
  if (std::strcmp(oid, "2.5.4.6") == 0 || std::strcmp(oid, "2.5.4.46") == 0) {
    return IsPrintable(text);
  }
  return true;
}

void AppendEscaped(std::string& out, const std::string& v) {
  for (size_t i = 0; i < v.size(); ++i) {
    char c = v[i];
    if (std::strchr("\\\"+,;<>", c) != nullptr || (i == 0 && (c == '#' || c == ' ')) ||
        (i + 1 == v.size() && c == ' ')) {
      out += '\\';
      out += c;
    } else {
      out += c;
    }
  }
}

void AppendHex(std::string& out, const MiByte& der) {
  static const char digits[] = "0123456789ABCDEF";
  out += '#';
  for (unsigned i = 0; i < der.GetLength(); ++i) {
    out += digits[der.GetBytes()[i] >> 4];
    out += digits[der.GetBytes()[i] & 15];
  }
}

}  // namespace

namespace kv::pki {

int ParseDnText(const char* text, size_t n, Name& name) {
  return Parser(text, n).Run(name);
}

std::string FormatDnText(const Name& name) {
  std::string out;
  const auto* rdns = Rdns(name);
  if (rdns == nullptr) return out;
  for (unsigned k = rdns->Size(); k-- > 0;) {
    if (k + 1 != rdns->Size()) out += ',';
    const AsnSetOf<AttributeTypeAndDistinguishedValue>& rdn = (*rdns)[k];
    for (unsigned j = 0; j < rdn.Size(); ++j) {
      if (j) out += '+';
      const AttributeTypeAndDistinguishedValue& ava = rdn[j];
      const char* oid = ava.GetType() ? ava.GetType()->GetData().GetChars() : nullptr;
      const DnAttribute* attr = oid ? FindDnAttributeByOid(oid) : nullptr;
      out += attr ? attr->keyword : (oid ? oid : "");
      out += '=';
      const AsnAny* value = ava.GetValue();
      if (value == nullptr || !value->HasData()) continue;
      std::string text;
      if (attr && ValueText(*value->GetData(), text) && ParsesBack(attr->oid, text)) {
        AppendEscaped(out, text);
      } else {
        AppendHex(out, Der(*value->GetData()));
      }
    }
  }
  return out;
}

}  // namespace kv::pki

extern "C" {

int KV_ParseDN(const char* utf8, unsigned char* derName, unsigned* len) {
  if (utf8 == nullptr || len == nullptr) return KV_ERR_ARGUMENT;
  return kv::pki::Guard([&]() -> int {
    Name name;
    int rv = kv::pki::ParseDnText(utf8, std::strlen(utf8), name);
    if (rv != 0) return rv;
    MiByte der = kv::pki::Der(name);
    if (derName == nullptr) {
      *len = der.GetLength();
      return 0;
    }
    if (*len < der.GetLength()) return KV_ERR_BUFFER;
    std::memcpy(derName, der.GetBytes(), der.GetLength());
    *len = der.GetLength();
    return 0;
  });
}

int KV_NameToText(const unsigned char* derName, unsigned derLen, char* text, unsigned* textLen) {
  if (derName == nullptr || textLen == nullptr) return KV_ERR_ARGUMENT;
  return kv::pki::Guard([&]() -> int {
    Name name;
    if (!kv::pki::DecodeWhole(name, derName, derLen) ||
        kv::pki::Rdns(static_cast<const Name&>(name)) == nullptr) {
      return KV_ERR_DECODE;
    }
    std::string out = kv::pki::FormatDnText(name);
    unsigned need = static_cast<unsigned>(out.size()) + 1;
    if (text == nullptr) {
      *textLen = need;
      return 0;
    }
    if (*textLen < need) return KV_ERR_BUFFER;
    std::memcpy(text, out.c_str(), need);
    *textLen = need;
    return 0;
  });
}

}  // extern "C"
