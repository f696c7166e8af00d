// Cipher block chaining over the 64-bit block ciphers (kv::Des,
// kv::TripleDes, kv::Rc2), streaming and one-shot, with optional PKCS#5
// padding. Nothing here throws: failures are reported by the return value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "crypto/des.h"
#include "crypto/rc2.h"

namespace kv {

namespace internal {

// Clears a buffer in a way the optimiser keeps.
void CbcWipe(void* p, size_t n);

// State shared by both directions: the keyed cipher, the chaining value and
// a partial block carried between updates.
template <class Cipher>
class CbcState {
 public:
  using CipherType = Cipher;
  static constexpr size_t kBlockSize = Cipher::kBlockSize;

  CbcState() = default;
  ~CbcState() { Clear(); }
  CbcState(const CbcState&) = default;
  CbcState& operator=(const CbcState&) = default;

  // cipher must hold a key and iv must be kBlockSize bytes.
  bool Init(const Cipher& cipher, const uint8_t* iv, size_t iv_len, bool pad) {
    Clear();
    if (!cipher.HasKey() || iv == nullptr || iv_len != kBlockSize) return false;
    cipher_ = cipher;
    std::memcpy(iv_, iv, kBlockSize);
    pad_ = pad;
    ready_ = true;
    return true;
  }
  // The same from raw key bytes, with the cipher's default key form (for
  // RC2 an effective length equal to the key length).
  bool Init(const uint8_t* key, size_t key_len, const uint8_t* iv, size_t iv_len, bool pad) {
    Cipher cipher;
    if (cipher.SetKey(key, key_len)) return Init(cipher, iv, iv_len, pad);
    Clear();  // a failed Init never leaves the previous message usable
    return false;
  }
  bool Ready() const { return ready_; }

 protected:
  void Clear() {
    cipher_ = Cipher();
    CbcWipe(iv_, sizeof iv_);
    CbcWipe(buf_, sizeof buf_);
    used_ = 0;
    ready_ = false;
  }

  Cipher cipher_;
  uint8_t iv_[kBlockSize] = {};
  uint8_t buf_[kBlockSize] = {};
  size_t used_ = 0;
  bool pad_ = true;
  bool ready_ = false;
};

}  // namespace internal

// Encrypts a stream. Usage: Init, any number of Update calls of any length,
// Final. Init again to start another message.
template <class Cipher>
class CbcEncryptor : public internal::CbcState<Cipher> {
  using Base = internal::CbcState<Cipher>;

 public:
  using Base::kBlockSize;

  // Writes every complete block so far to out (room for len + kBlockSize - 1
  // bytes) and sets *out_len. out may equal in when no partial block is
  // pending (always true for the first call); otherwise they must not
  // overlap. False when not initialised.
  bool Update(const uint8_t* in, size_t len, uint8_t* out, size_t* out_len) {
    *out_len = 0;
    if (!this->ready_) return false;
    if (len == 0) return true;
    size_t written = 0;
    if (this->used_) {
      size_t take = kBlockSize - this->used_;
      if (take > len) take = len;
      std::memcpy(this->buf_ + this->used_, in, take);
      this->used_ += take;
      in += take;
      len -= take;
      if (this->used_ < kBlockSize) return true;
      this->cipher_.CbcEncrypt(this->iv_, this->buf_, out, 1);
      this->used_ = 0;
      written = kBlockSize;
    }
    size_t blocks = len / kBlockSize;
    if (blocks) {
      this->cipher_.CbcEncrypt(this->iv_, in, out + written, blocks);
      written += blocks * kBlockSize;
      in += blocks * kBlockSize;
      len -= blocks * kBlockSize;
    }
    if (len) {
      std::memcpy(this->buf_, in, len);
      this->used_ = len;
    }
    *out_len = written;
    return true;
  }

  // With padding writes the last block (always kBlockSize bytes). Without
  // padding writes nothing and fails if a partial block is left over. The
  // object must be initialised again afterwards.
  bool Final(uint8_t* out, size_t* out_len) {
    *out_len = 0;
    if (!this->ready_) return false;
    bool ok = true;
    if (this->pad_) {
      uint8_t n = uint8_t(kBlockSize - this->used_);
      std::memset(this->buf_ + this->used_, n, n);
      this->cipher_.CbcEncrypt(this->iv_, this->buf_, out, 1);
      *out_len = kBlockSize;
    } else {
      ok = this->used_ == 0;
    }
    this->Clear();
    return ok;
  }
};

// Decrypts a stream. With padding, the last block is held back until Final,
// which checks and strips the padding.
template <class Cipher>
class CbcDecryptor : public internal::CbcState<Cipher> {
  using Base = internal::CbcState<Cipher>;

 public:
  using Base::kBlockSize;

  // Same contract as CbcEncryptor::Update.
  bool Update(const uint8_t* in, size_t len, uint8_t* out, size_t* out_len) {
    *out_len = 0;
    if (!this->ready_) return false;
    if (len == 0) return true;
    // Bytes that may be released now: whole blocks, keeping back at least
    // one byte (the last block, once complete) when padding is expected.
    size_t total = this->used_ + len;
    size_t release =
        this->pad_ ? (total - 1) / kBlockSize * kBlockSize : total / kBlockSize * kBlockSize;
    size_t written = 0;
    if (this->used_ && release) {
      size_t take = kBlockSize - this->used_;
      std::memcpy(this->buf_ + this->used_, in, take);
      in += take;
      len -= take;
      this->cipher_.CbcDecrypt(this->iv_, this->buf_, out, 1);
      this->used_ = 0;
      written = kBlockSize;
    }
    size_t blocks = (release - written) / kBlockSize;
    if (blocks) {
      this->cipher_.CbcDecrypt(this->iv_, in, out + written, blocks);
      written += blocks * kBlockSize;
      in += blocks * kBlockSize;
      len -= blocks * kBlockSize;
    }
    std::memcpy(this->buf_ + this->used_, in, len);
    this->used_ += len;
    *out_len = written;
    return true;
  }

  // With padding: the held-back block must be complete and correctly padded
  // (1..kBlockSize bytes each of that value); writes the plaintext left
  // (0..kBlockSize - 1 bytes). Without padding: fails on a partial block.
  // On failure nothing is written. The object must be initialised again
  // afterwards.
  bool Final(uint8_t* out, size_t* out_len) {
    *out_len = 0;
    if (!this->ready_) return false;
    bool ok;
    if (!this->pad_) {
      ok = this->used_ == 0;
    } else if (this->used_ != kBlockSize) {
      ok = false;
    } else {
      uint8_t block[kBlockSize];
      this->cipher_.CbcDecrypt(this->iv_, this->buf_, block, 1);
      // Checked without an early exit, so the time taken does not say which
      // byte was wrong.
      unsigned n = block[kBlockSize - 1];
      unsigned bad = (n == 0) | (n > kBlockSize);
      for (size_t i = 0; i < kBlockSize; ++i) {
        unsigned in_pad = i >= kBlockSize - n;
        bad |= in_pad & (block[i] != n);
      }
      ok = !bad;
      if (ok) {
        std::memcpy(out, block, kBlockSize - n);
        *out_len = kBlockSize - n;
      }
      internal::CbcWipe(block, sizeof block);
    }
    this->Clear();
    return ok;
  }
};

// One-shot CBC with a keyed cipher. Encryption writes up to len + kBlockSize
// bytes (len rounded up to whole blocks with padding; exactly len, which must
// be a multiple of the block size, without); decryption at most len bytes.
// out may equal in. False on a bad IV length, an unkeyed cipher, a partial
// block without padding, or (decrypting) bad padding.
template <class Cipher>
bool CbcEncrypt(const Cipher& cipher, const uint8_t* iv, size_t iv_len, const uint8_t* in,
                size_t len, uint8_t* out, size_t* out_len, bool pad = true) {
  CbcEncryptor<Cipher> enc;
  size_t a = 0, b = 0;
  bool ok =
      enc.Init(cipher, iv, iv_len, pad) && enc.Update(in, len, out, &a) && enc.Final(out + a, &b);
  *out_len = ok ? a + b : 0;
  return ok;
}

template <class Cipher>
bool CbcDecrypt(const Cipher& cipher, const uint8_t* iv, size_t iv_len, const uint8_t* in,
                size_t len, uint8_t* out, size_t* out_len, bool pad = true) {
  CbcDecryptor<Cipher> dec;
  size_t a = 0, b = 0;
  bool ok =
      dec.Init(cipher, iv, iv_len, pad) && dec.Update(in, len, out, &a) && dec.Final(out + a, &b);
  *out_len = ok ? a + b : 0;
  return ok;
}

// One-shot CBC from raw key bytes: DES (8-byte key), triple DES (16 or 24)
// and RC2 (1..128 bytes, 1..1024 effective bits). Same buffers and results as
// above; a bad key length is a failure too.
bool DesCbcEncrypt(const uint8_t* key, size_t key_len, const uint8_t* iv, size_t iv_len,
                   const uint8_t* in, size_t len, uint8_t* out, size_t* out_len, bool pad = true);
bool DesCbcDecrypt(const uint8_t* key, size_t key_len, const uint8_t* iv, size_t iv_len,
                   const uint8_t* in, size_t len, uint8_t* out, size_t* out_len, bool pad = true);
bool TripleDesCbcEncrypt(const uint8_t* key, size_t key_len, const uint8_t* iv, size_t iv_len,
                         const uint8_t* in, size_t len, uint8_t* out, size_t* out_len,
                         bool pad = true);
bool TripleDesCbcDecrypt(const uint8_t* key, size_t key_len, const uint8_t* iv, size_t iv_len,
                         const uint8_t* in, size_t len, uint8_t* out, size_t* out_len,
                         bool pad = true);
bool Rc2CbcEncrypt(const uint8_t* key, size_t key_len, int effective_bits, const uint8_t* iv,
                   size_t iv_len, const uint8_t* in, size_t len, uint8_t* out, size_t* out_len,
                   bool pad = true);
bool Rc2CbcDecrypt(const uint8_t* key, size_t key_len, int effective_bits, const uint8_t* iv,
                   size_t iv_len, const uint8_t* in, size_t len, uint8_t* out, size_t* out_len,
                   bool pad = true);

}  // namespace kv
