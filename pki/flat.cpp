#include "pki/flat.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>
#include <vector>

#include "pki/internal/context.h"

namespace {

std::atomic<int> g_initCount{0};

// Live contexts. A destroyed context's memory is gone, so its magic cannot be
// read to refuse a second PKCS_DestroyCtx; membership here can.
std::mutex g_contextsLock;
std::unordered_set<const PKCS_CONTEXT*>& Contexts() {
  static auto* live = new std::unordered_set<const PKCS_CONTEXT*>;
  return *live;
}

struct Item {
  unsigned char* data = nullptr;
  unsigned int len = 0;
};

}  // namespace

struct KV_LIST {
  std::vector<Item> items;
};

namespace kv::pki {

bool LibraryInitialized() {
  return g_initCount.load() > 0;
}

KV_P11_OP* ContextOp(PKCS_CTX ctx) {
  if (ctx == nullptr) return nullptr;
  {
    std::lock_guard<std::mutex> lock(g_contextsLock);
    if (Contexts().count(ctx) == 0) return nullptr;
  }
  if (ctx->magic != PKCS_CONTEXT::kMagic) return nullptr;
  return &ctx->op;
}

}  // namespace kv::pki

namespace {

void FreeItem(Item& item) {
  T_free(item.data);
  item.data = nullptr;
  item.len = 0;
}

}  // namespace

extern "C" {

int PKCS_Initialize(void) {
  g_initCount.fetch_add(1);
  return 0;
}

int PKCS_Finalize(void) {
  // Never below zero, so an unmatched Finalize cannot hide a later Initialize.
  int n = g_initCount.load();
  while (n > 0 && !g_initCount.compare_exchange_weak(n, n - 1)) {
  }
  return n > 0 ? 0 : KV_ERR_NOT_INITIALIZED;
}

int PKCS_CreateCtx(PKCS_CTX* ctx) {
  if (ctx == nullptr) return KV_ERR_ARGUMENT;
  *ctx = nullptr;
  if (!kv::pki::LibraryInitialized()) return KV_ERR_NOT_INITIALIZED;
  return kv::pki::Guard([&]() -> int {
    auto* c = new (std::nothrow) PKCS_CONTEXT;
    if (c == nullptr) return KV_ERR_MEMORY;
    KV_PKCS11_S desc{};
    desc.selector = KV_P11_STORE_SOFT;
    int rv = c->op.createChooser(&desc);
    if (rv != 0) {
      delete c;
      return rv;
    }
    try {
      std::lock_guard<std::mutex> lock(g_contextsLock);
      Contexts().insert(c);
    } catch (...) {
      delete c;
      throw;
    }
    *ctx = c;
    return 0;
  });
}

int PKCS_DestroyCtx(PKCS_CTX ctx) {
  {
    std::lock_guard<std::mutex> lock(g_contextsLock);
    if (ctx == nullptr || Contexts().erase(ctx) == 0) return KV_ERR_BAD_CONTEXT;
  }
  ctx->op.destroyChooser();
  ctx->magic = 0;
  delete ctx;
  return 0;
}

int KV_CreateList(KV_LIST** list) {
  if (list == nullptr) return KV_ERR_ARGUMENT;
  *list = new (std::nothrow) KV_LIST;
  return *list ? 0 : KV_ERR_MEMORY;
}

int KV_DestroyList(KV_LIST* list) {
  if (list == nullptr) return 0;
  KV_ListClear(list);
  delete list;
  return 0;
}

int KV_ListAppend(KV_LIST* list, const unsigned char* data, unsigned int n) {
  if (list == nullptr || (data == nullptr && n != 0)) return KV_ERR_ARGUMENT;
  return kv::pki::Guard([&]() -> int {
    Item item;
    item.data = static_cast<unsigned char*>(T_malloc(n));
    if (item.data == nullptr) return KV_ERR_MEMORY;
    if (n) std::memcpy(item.data, data, n);
    item.len = n;
    try {
      list->items.push_back(item);
    } catch (...) {
      FreeItem(item);
      throw;
    }
    return 0;
  });
}

int KV_ListCount(const KV_LIST* list, unsigned int* count) {
  if (list == nullptr || count == nullptr) return KV_ERR_ARGUMENT;
  *count = static_cast<unsigned int>(list->items.size());
  return 0;
}

int KV_ListGet(const KV_LIST* list, unsigned int i, const unsigned char** data, unsigned int* n) {
  if (list == nullptr || data == nullptr || n == nullptr) return KV_ERR_ARGUMENT;
  if (i >= list->items.size()) return KV_ERR_INDEX;
  *data = list->items[i].data;
  *n = list->items[i].len;
  return 0;
}

int KV_ListCopy(const KV_LIST* list, unsigned int i, unsigned char* out, unsigned int* n) {
  if (list == nullptr || n == nullptr) return KV_ERR_ARGUMENT;
  if (i >= list->items.size()) return KV_ERR_INDEX;
  const Item& item = list->items[i];
  if (out == nullptr) {
    *n = item.len;
    return 0;
  }
  if (*n < item.len) return KV_ERR_BUFFER;
  if (item.len) std::memcpy(out, item.data, item.len);
  *n = item.len;
  return 0;
}

int KV_ListRemove(KV_LIST* list, unsigned int i) {
  if (list == nullptr) return KV_ERR_ARGUMENT;
  if (i >= list->items.size()) return KV_ERR_INDEX;
  FreeItem(list->items[i]);
  list->items.erase(list->items.begin() + i);
  return 0;
}

int KV_ListClear(KV_LIST* list) {
  if (list == nullptr) return KV_ERR_ARGUMENT;
  for (Item& item : list->items) FreeItem(item);
  list->items.clear();
  return 0;
}

}  // extern "C"
