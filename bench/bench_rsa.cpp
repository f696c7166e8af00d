// RSA engine against OpenSSL's libcrypto: raw private (CRT) and public
// operations on the same keys, and key generation times.
#include <openssl/bn.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "bench.h"
#include "crypto/rsa.h"

namespace {

std::vector<unsigned char> BnBytes(const BIGNUM* b) {
  std::vector<unsigned char> v(BN_num_bytes(b));
  BN_bn2bin(b, v.data());
  return v;
}

void OperationFigures(int bits) {
  RSA* rsa = RSA_new();
  BIGNUM* e = BN_new();
  BN_set_word(e, 65537);
  RSA_generate_key_ex(rsa, bits, e, nullptr);
  BN_free(e);
  const BIGNUM* parts[8];
  RSA_get0_key(rsa, &parts[0], &parts[1], &parts[2]);
  RSA_get0_factors(rsa, &parts[3], &parts[4]);
  RSA_get0_crt_params(rsa, &parts[5], &parts[6], &parts[7]);
  std::vector<unsigned char> bytes[8];
  KV_RSA_COMPONENT comps[8];
  for (int i = 0; i < 8; ++i) {
    bytes[i] = BnBytes(parts[i]);
    comps[i].data = bytes[i].data();
    comps[i].len = static_cast<unsigned int>(bytes[i].size());
  }
  KV_RSA_CTX* ctx = nullptr;
  if (KV_RSA_LoadKey(comps, KV_RSA_PRIVATE_BLOCK_SIZE, &ctx) != 0) {
    std::printf("RSA-%d: key did not load\n", bits);
    RSA_free(rsa);
    return;
  }
  const unsigned int k = KV_RSA_ModulusLength(ctx);
  std::vector<unsigned char> in(k, 0x5a), out(k), out2(k);
  in[0] = 0x01;  // below the modulus
  unsigned int len = 0;

  double ours = kvbench::rate([&] { KV_RSA_PrivateBlock(ctx, in.data(), k, out.data(), &len); });
  double theirs = kvbench::rate([&] {
    RSA_private_encrypt(static_cast<int>(k), in.data(), out2.data(), rsa, RSA_NO_PADDING);
  });
  if (out != out2) std::printf("RSA-%d private results differ\n", bits);
  kvbench::report("rsa" + std::to_string(bits) + "_private_ops_per_s", ours, theirs, true);

  ours = kvbench::rate([&] { KV_RSA_PublicBlock(ctx, in.data(), k, out.data(), &len); });
  theirs = kvbench::rate([&] {
    RSA_public_encrypt(static_cast<int>(k), in.data(), out2.data(), rsa, RSA_NO_PADDING);
  });
  if (out != out2) std::printf("RSA-%d public results differ\n", bits);
  kvbench::report("rsa" + std::to_string(bits) + "_public_ops_per_s", ours, theirs, true);
  KV_RSA_FreeCtx(ctx);
  RSA_free(rsa);
}

void KeygenFigures(int bits, int count) {
  std::vector<double> ours, theirs;
  for (int i = 0; i < count; ++i) {
    auto start = kvbench::Clock::now();
    KV_RSA_COMPONENT* block = nullptr;
    int rc = KV_RSA_GenerateKeyPair(bits, &block, nullptr);
    ours.push_back(kvbench::seconds_since(start) * 1000);
    if (rc != 0) std::printf("keygen %d failed: %d\n", bits, rc);
    KV_RSA_FreeKeyPair(block);

    start = kvbench::Clock::now();
    RSA* rsa = RSA_new();
    BIGNUM* e = BN_new();
    BN_set_word(e, 65537);
    RSA_generate_key_ex(rsa, bits, e, nullptr);
    theirs.push_back(kvbench::seconds_since(start) * 1000);
    BN_free(e);
    RSA_free(rsa);
  }
  auto mean = [](const std::vector<double>& v) {
    double s = 0;
    for (double x : v) s += x;
    return s / v.size();
  };
  std::string name = "rsa" + std::to_string(bits) + "_keygen";
  kvbench::report(name + "_mean_ms", mean(ours), mean(theirs), false);
  kvbench::report(name + "_worst_ms", *std::max_element(ours.begin(), ours.end()),
                  *std::max_element(theirs.begin(), theirs.end()), false);
}

}  // namespace

KV_BENCH(rsa) {
  OperationFigures(2048);
  OperationFigures(4096);
  KeygenFigures(1024, 20);
  KeygenFigures(2048, 20);
}
