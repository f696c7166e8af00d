#include "rsa/rsa_test_util.h"

#include <gtest/gtest.h>

#include <cstring>

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

}  // namespace rsatest
