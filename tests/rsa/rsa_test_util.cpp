#include "rsa/rsa_test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "crypto/internal/rsa_internal.h"

namespace rsatest {

std::vector<KV_RSA_COMPONENT> Key::Components() const {
  std::vector<KV_RSA_COMPONENT> c(KV_RSA_COMPONENT_COUNT);
  for (int i = 0; i < KV_RSA_COMPONENT_COUNT; ++i) {
    c[i].data = const_cast<unsigned char*>(part[i].data());
    c[i].len = static_cast<unsigned int>(part[i].size());
  }
  return c;
}

kv::RsaCtxPtr Key::LoadPublic() const {
  auto c = Components();
  KV_RSA_CTX* ctx = nullptr;
  EXPECT_EQ(0, KV_RSA_LoadKey(c.data(), KV_RSA_PUBLIC_BLOCK_SIZE, &ctx));
  return kv::RsaCtxPtr(ctx);
}

kv::RsaCtxPtr Key::LoadPrivate() const {
  auto c = Components();
  KV_RSA_CTX* ctx = nullptr;
  EXPECT_EQ(0, KV_RSA_LoadKey(c.data(), KV_RSA_PRIVATE_BLOCK_SIZE, &ctx));
  return kv::RsaCtxPtr(ctx);
}

int Key::Bits() const {
  const Bytes& n = part[KV_RSA_MODULUS];
  std::size_t i = 0;
  while (i < n.size() && n[i] == 0) ++i;
  if (i == n.size()) return 0;
  int bits = static_cast<int>(n.size() - i - 1) * 8;
  for (unsigned v = n[i]; v; v >>= 1) ++bits;
  return bits;
}

Key FromBlock(const KV_RSA_COMPONENT* block) {
  Key k;
  for (int i = 0; i < KV_RSA_COMPONENT_COUNT; ++i) {
    k.part[i].assign(block[i].data, block[i].data + block[i].len);
  }
  return k;
}

Bytes Unhex(const std::string& hex) {
  Bytes out;
  int hi = -1;
  for (char ch : hex) {
    int v;
    if (ch >= '0' && ch <= '9') {
      v = ch - '0';
    } else if (ch >= 'a' && ch <= 'f') {
      v = ch - 'a' + 10;
    } else if (ch >= 'A' && ch <= 'F') {
      v = ch - 'A' + 10;
    } else {
      continue;
    }
    if (hi < 0) {
      hi = v;
    } else {
      out.push_back(static_cast<std::uint8_t>(hi * 16 + v));
      hi = -1;
    }
  }
  return out;
}

std::string Hex(const Bytes& b) {
  static const char* d = "0123456789abcdef";
  std::string s;
  for (auto x : b) {
    s += d[x >> 4];
    s += d[x & 15];
  }
  return s;
}

FixedPadding::FixedPadding(const Bytes& bytes) : bytes_(bytes) {
  KvRsaSetPaddingSourceForTesting(&FixedPadding::Fill, this);
}

FixedPadding::~FixedPadding() {
  KvRsaSetPaddingSourceForTesting(nullptr, nullptr);
}

int FixedPadding::Fill(void* arg, unsigned char* buf, unsigned int len) {
  auto* self = static_cast<FixedPadding*>(arg);
  if (self->bytes_.size() - self->pos_ < len) return -1;
  std::memcpy(buf, self->bytes_.data() + self->pos_, len);
  self->pos_ += len;
  return 0;
}

std::vector<KeyVectors> ReadVectors(const std::string& path) {
  std::ifstream in(path);
  EXPECT_TRUE(in) << path;
  std::vector<KeyVectors> keys;
  Bytes* target = nullptr;
  bool in_private = false;
  std::string line;
  int lineno = 0;
  auto label_is = [](const std::string& l, const char* name) {
    return l == std::string("# ") + name + ":";
  };
  while (std::getline(in, line)) {
    ++lineno;
    while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
    if (line.rfind("#", 0) != 0) {
      if (target && !line.empty()) {
        Bytes b = rsatest::Unhex(line);
        target->insert(target->end(), b.begin(), b.end());
      }
      continue;
    }
    target = nullptr;
    if (line.rfind("# Example ", 0) == 0 && line.find("key pair") != std::string::npos) {
      keys.emplace_back();
      keys.back().title = line.substr(2);
      in_private = false;
      continue;
    }
    if (keys.empty()) continue;
    KeyVectors& kv = keys.back();
    auto& part = kv.key.part;
    if (line == "# Private key") {
      in_private = true;
    } else if (label_is(line, "Modulus")) {
      part[KV_RSA_MODULUS].clear();
      target = &part[KV_RSA_MODULUS];
    } else if (label_is(line, "Public exponent") || (!in_private && label_is(line, "Exponent"))) {
      part[KV_RSA_PUBLIC_EXPONENT].clear();
      target = &part[KV_RSA_PUBLIC_EXPONENT];
    } else if (label_is(line, "Exponent")) {
      target = &part[KV_RSA_PRIVATE_EXPONENT];
    } else if (label_is(line, "Prime 1")) {
      target = &part[KV_RSA_PRIME1];
    } else if (label_is(line, "Prime 2")) {
      target = &part[KV_RSA_PRIME2];
    } else if (label_is(line, "Prime exponent 1")) {
      target = &part[KV_RSA_EXPONENT1];
    } else if (label_is(line, "Prime exponent 2")) {
      target = &part[KV_RSA_EXPONENT2];
    } else if (label_is(line, "Coefficient")) {
      target = &part[KV_RSA_COEFFICIENT];
    } else if (label_is(line, "Message") || label_is(line, "Message to be signed")) {
      kv.cases.emplace_back();
      kv.cases.back().line = lineno;
      target = &kv.cases.back().message;
    } else if (label_is(line, "Seed") && !kv.cases.empty()) {
      target = &kv.cases.back().seed;
    } else if ((label_is(line, "Encryption") || label_is(line, "Signature")) && !kv.cases.empty()) {
      target = &kv.cases.back().result;
    }
  }
  return keys;
}

}  // namespace rsatest
