#include "kiv/Pool.h"

#include <new>

namespace Kiv {

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kPooled = false;
#else
constexpr bool kPooled = true;
#endif

constexpr std::size_t kGrain = 16;     // every block is a multiple, so any object is aligned
constexpr std::size_t kLargest = 256;  // larger requests go to the general allocator
constexpr std::size_t kChunk = 256 * 1024;

struct FreeBlock {
  FreeBlock* next;
};

struct Lists {
  FreeBlock* free[kLargest / kGrain] = {};
  char* next = nullptr;  // the unused rest of the current chunk
  char* end = nullptr;
  PoolBytes bytes;
};

thread_local Lists lists;

std::size_t classOf(std::size_t size) { return (size - 1) / kGrain; }

}  // namespace

void* poolAllocate(std::size_t size) {
  if (!kPooled || size == 0 || size > kLargest) return ::operator new(size);
  Lists& l = lists;
  std::size_t const c = classOf(size);
  std::size_t const block = (c + 1) * kGrain;
  l.bytes.inUse += block;
  if (FreeBlock* b = l.free[c]) {
    l.free[c] = b->next;
    return b;
  }
  if (static_cast<std::size_t>(l.end - l.next) < block) {
    // The rest of the old chunk, smaller than this block, serves a smaller size.
    if (std::size_t const left = static_cast<std::size_t>(l.end - l.next)) {
      auto* rest = reinterpret_cast<FreeBlock*>(l.next);
      rest->next = l.free[classOf(left)];
      l.free[classOf(left)] = rest;
    }
    l.next = static_cast<char*>(::operator new(kChunk));
    l.end = l.next + kChunk;
    l.bytes.chunks += kChunk;
  }
  void* p = l.next;
  l.next += block;
  return p;
}

void poolRelease(void* p, std::size_t size) noexcept {
  if (!p) return;
  if (!kPooled || size == 0 || size > kLargest) {
    ::operator delete(p);
    return;
  }
  Lists& l = lists;
  std::size_t const c = classOf(size);
  l.bytes.inUse -= (c + 1) * kGrain;
  auto* b = static_cast<FreeBlock*>(p);
  b->next = l.free[c];
  l.free[c] = b;
}

bool poolEnabled() { return kPooled; }

PoolBytes poolBytes() { return lists.bytes; }

}  // namespace Kiv
