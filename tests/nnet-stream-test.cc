// Streaming equivalence: however a stream is cut into batches, Compute and
// FlushOutput produce the rows and records of one call on the whole stream,
// and those rows are the whole-utterance forward pass of every component.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "nnet-test-util.h"
#include "nnet/nnet-component.h"
#include "nnet/nnet.h"

namespace kestrel {
namespace {

struct Outputs {
  std::vector<std::vector<float>> rows;
  std::vector<int32> frame_ids;
};

void Append(const Matrix& out, const std::vector<FrameInfo>& info, Outputs* all) {
  ASSERT_EQ(info.size(), static_cast<size_t>(out.NumRows()));
  for (int r = 0; r < out.NumRows(); ++r) {
    all->rows.emplace_back(out.RowData(r), out.RowData(r) + out.NumCols());
    all->frame_ids.push_back(info[r].frame_id);
  }
}

// Feeds `input` in chunks of the given sizes (summing to its rows), flushing
// with the last one.
Outputs RunChunked(Nnet* nnet, const MatrixBase& input, const std::vector<int>& chunks) {
  Outputs all;
  Matrix out;
  std::vector<FrameInfo> info;
  int first = 0;
  for (size_t i = 0; i < chunks.size(); ++i) {
    const SubMatrix chunk = input.RowRange(first, chunks[i]);
    const std::vector<FrameInfo> chunk_info = FrameInfos(100 + first, chunks[i]);
    if (i + 1 == chunks.size()) {
      nnet->FlushOutput(chunk, chunk_info, &out, &info);
    } else {
      nnet->Compute(chunk, chunk_info, &out, &info);
    }
    Append(out, info, &all);
    first += chunks[i];
  }
  return all;
}

// The utterance-level forward pass, component by component.
Matrix WholeUtterance(const Nnet& nnet, const Matrix& input) {
  Matrix cur(input);
  for (int i = 0; i < nnet.NumComponents(); ++i) {
    const Component& c = nnet.GetComponent(i);
    Matrix next(cur.NumRows(), c.OutputDim());
    c.Propagate(cur, &next);
    cur = std::move(next);
  }
  return cur;
}

std::vector<int> RandomChunks(int total, std::mt19937* rng) {
  std::vector<int> chunks;
  while (total > 0) {
    // Empty batches are legal and must change nothing.
    int n = std::uniform_int_distribution<int>(0, 9)(*rng);
    n = std::min(n, total);
    chunks.push_back(n);
    total -= n;
  }
  chunks.push_back(0);  // the flush
  return chunks;
}

void ExpectSameBits(const Outputs& a, const Outputs& b, const char* what) {
  ASSERT_EQ(a.rows.size(), b.rows.size()) << what;
  EXPECT_EQ(a.frame_ids, b.frame_ids) << what;
  for (size_t r = 0; r < a.rows.size(); ++r) {
    ASSERT_EQ(a.rows[r].size(), b.rows[r].size());
    EXPECT_EQ(std::memcmp(a.rows[r].data(), b.rows[r].data(), a.rows[r].size() * sizeof(float)),
              0)
        << what << ": row " << r << " differs";
  }
}

TEST(NnetStreamTest, AnyChunkingMatchesOneCallOnRandomNetworks) {
  std::mt19937 rng(17);
  for (int trial = 0; trial < 60; ++trial) {
    SCOPED_TRACE(trial);
    Nnet nnet = RandomNnet(&rng);
    const int frames = std::uniform_int_distribution<int>(0, 50)(rng);
    const Matrix input = RandomMatrix(frames, nnet.InputDim(), &rng);

    const Outputs whole = RunChunked(&nnet, input, {frames});
    ASSERT_EQ(whole.rows.size(), static_cast<size_t>(frames));
    for (int r = 0; r < frames; ++r) EXPECT_EQ(whole.frame_ids[r], 100 + r);

    const Matrix reference = WholeUtterance(nnet, input);
    Outputs utterance;
    Append(reference, FrameInfos(100, frames), &utterance);
    ExpectSameBits(whole, utterance, "whole-utterance forward pass");

    std::vector<int> singles(frames, 1);
    singles.push_back(0);
    ExpectSameBits(whole, RunChunked(&nnet, input, singles), "one row per call");
    for (int k = 0; k < 3; ++k) {
      ExpectSameBits(whole, RunChunked(&nnet, input, RandomChunks(frames, &rng)),
                     "random chunks");
    }
  }
}

TEST(NnetStreamTest, ResetMidStreamAndCopiesStartFromTheirOwnState) {
  std::mt19937 rng(5);
  for (int trial = 0; trial < 20; ++trial) {
    SCOPED_TRACE(trial);
    Nnet nnet = RandomNnet(&rng);
    const Matrix input = RandomMatrix(20, nnet.InputDim(), &rng);
    const Outputs whole = RunChunked(&nnet, input, {20});

    // Half a stream, then a reset: the next stream is unaffected.
    Matrix out;
    std::vector<FrameInfo> info;
    nnet.Compute(input.RowRange(0, 7), FrameInfos(0, 7), &out, &info);
    Nnet copy = nnet;
    nnet.ResetComputation();
    ExpectSameBits(whole, RunChunked(&nnet, input, {3, 17}), "after reset");

    // The copy continues the interrupted stream where it was.
    const Outputs rest = RunChunked(&copy, input.RowRange(7, 13), {13});
    ASSERT_EQ(out.NumRows() + rest.rows.size(), 20u);
    for (int r = 0; r < out.NumRows(); ++r) {
      EXPECT_EQ(std::vector<float>(out.RowData(r), out.RowData(r) + out.NumCols()),
                whole.rows[r]);
    }
    for (size_t r = 0; r < rest.rows.size(); ++r) {
      EXPECT_EQ(rest.rows[r], whole.rows[out.NumRows() + r]) << "row " << r;
    }
  }
}

}  // namespace
}  // namespace kestrel
