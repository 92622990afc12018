#pragma once
// Memory for the framework's small objects: entities, reactors, machines and string texts.
//
// A process holds millions of them (several per mounted path and switch), made and released in
// large batches. Blocks are carved one after the other from large chunks, whatever their size, so
// the objects made together stay together in memory; a released block goes onto a free list of its
// size and serves the next request of that size. Releasing is a push, with no merging with
// neighbours, which is what makes the general allocator slow when a whole system goes at once.
//
// The price: memory released here is kept for later objects of the same size and not given back
// to the system. Each thread has its own lists (a reference count may drop to zero on another
// thread while thread-safe pointers are on): a block released on one thread is reused on that one,
// and lost when that thread ends. Under AddressSanitizer every request goes to the general
// allocator, so that it still catches use after release.

#include <cstddef>

namespace Kiv {

void* poolAllocate(std::size_t size);
void poolRelease(void* p, std::size_t size) noexcept;

// False when every request goes to the general allocator (under AddressSanitizer).
bool poolEnabled();

// This thread's pool: the chunks taken from the general allocator, and the blocks handed out of
// them and not yet released. What a world of objects really holds is the general allocator's
// figure less `chunks` plus `inUse`.
struct PoolBytes {
  std::size_t chunks = 0;
  std::size_t inUse = 0;
};
PoolBytes poolBytes();

}  // namespace Kiv
