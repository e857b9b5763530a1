#pragma once

#include <cstddef>

#include "RapidJson.h"

// A RapidJSON pool whose first 24 KB lie inside the object, so that small jobs leave the heap alone. Meant
// for the stack; it neither moves nor copies. What is allocated from it lives until it is cleared or
// destroyed.
class JsonPool {
  public:
    using Allocator = rapidjson::MemoryPoolAllocator<>;

    JsonPool() : mAllocator(mMemory, sizeof(mMemory), kHeapChunkBytes, &mHeap) {}
    JsonPool(const JsonPool&) = delete;
    JsonPool& operator=(const JsonPool&) = delete;

    Allocator& allocator() { return mAllocator; }

  private:
    static constexpr size_t kHeapChunkBytes = size_t{64} * 1024;  // RapidJSON's own choice

    alignas(std::max_align_t) char mMemory[24 * 1024];
    rapidjson::CrtAllocator mHeap;
    Allocator mAllocator;
};
