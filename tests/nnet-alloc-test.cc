// Once its buffers have grown to the batch size, the network computes without
// touching the heap. This program replaces the global allocation functions
// with counting ones, so it holds only this test.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <random>
#include <vector>

#include "nnet-test-util.h"
#include "nnet/nnet.h"

namespace {

std::atomic<long> allocations{0};

void* CountedAlloc(std::size_t size, std::size_t align) {
  ++allocations;
  if (size == 0) size = 1;
  void* p = align <= alignof(std::max_align_t)
                ? std::malloc(size)
                : std::aligned_alloc(align, (size + align - 1) / align * align);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

}  // namespace

void* operator new(std::size_t size) { return CountedAlloc(size, 0); }
void* operator new[](std::size_t size) { return CountedAlloc(size, 0); }
void* operator new(std::size_t size, std::align_val_t align) {
  return CountedAlloc(size, static_cast<std::size_t>(align));
}
void* operator new[](std::size_t size, std::align_val_t align) {
  return CountedAlloc(size, static_cast<std::size_t>(align));
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }

namespace kestrel {
namespace {

// The shape of a typical hotword network: 40 features spliced -10..+5,
// three hidden ReLU layers, a softmax over 12 units.
Nnet HotwordShapedNnet(std::mt19937* rng) {
  Nnet nnet;
  std::vector<int32> offsets;
  for (int o = -10; o <= 5; ++o) offsets.push_back(o);
  nnet.AppendComponent(std::make_unique<Splice>(40, offsets));
  for (int in : {640, 128, 128}) {
    nnet.AppendComponent(RandomAffine(in, 128, rng));
    nnet.AppendComponent(std::make_unique<Relu>(128));
  }
  nnet.AppendComponent(RandomAffine(128, 12, rng));
  nnet.AppendComponent(std::make_unique<Softmax>(12));
  return nnet;
}

TEST(NnetAllocTest, SteadyStreamDoesNotAllocate) {
  std::mt19937 rng(1);
  Nnet nnet = HotwordShapedNnet(&rng);
  const int kMaxBatch = 32;
  const Matrix input = RandomMatrix(kMaxBatch, 40, &rng);
  std::vector<std::vector<FrameInfo>> infos;
  for (int n = 0; n <= kMaxBatch; ++n) infos.push_back(FrameInfos(0, n));
  Matrix out;
  std::vector<FrameInfo> out_info;

  // Warm up: one stream with the largest batch grows every buffer.
  for (int i = 0; i < 3; ++i) {
    nnet.Compute(input, infos[kMaxBatch], &out, &out_info);
  }
  nnet.FlushOutput(input, infos[kMaxBatch], &out, &out_info);

  const long before = allocations.load();
  for (int round = 0; round < 4; ++round) {
    for (int n : {1, 1, 1, 32, 7, 0, 16, 1, 32}) {
      nnet.Compute(input.RowRange(0, n), infos[n], &out, &out_info);
    }
    nnet.FlushOutput(input.RowRange(0, 5), infos[5], &out, &out_info);
    nnet.ResetComputation();
  }
  EXPECT_EQ(allocations.load() - before, 0);

  // The counter does see the network's allocations.
  Nnet fresh = HotwordShapedNnet(&rng);
  const long before_fresh = allocations.load();
  fresh.Compute(input, infos[kMaxBatch], &out, &out_info);
  EXPECT_GT(allocations.load() - before_fresh, 0);
}

}  // namespace
}  // namespace kestrel
