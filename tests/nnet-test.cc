// The network: small networks computed by hand; streaming, where however a
// stream is cut into batches the rows and records are those of one call on
// the whole stream, and the rows those of the whole-utterance forward pass;
// malformed files, whose errors name the component, its position and what was
// wrong, and which never crash the reader; the affine kernel,
// against a plain double-precision product on shapes that cross its panel,
// row-block and input-block boundaries, for every kernel the CPU has.
#include "nnet/nnet.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "nnet-test-util.h"
#include "nnet/nnet-component.h"
#include "nnet/nnet-kernel.h"
#include "test-log-capture.h"

namespace kestrel {
namespace {

// 2 inputs -> affine 3 -> relu -> affine 2 -> softmax.
const char kSmallNet[] =
    "<Nnet>\n"
    "<AffineTransform> 3 2\n"
    " [\n  1 0\n  0 1\n  1 -1 ]\n"
    " [ 0 0 0.5 ]\n"
    "<Relu> 3 3\n"
    "<AffineTransform> 2 3\n"
    " [\n  1 1 0\n  0 0 1 ]\n"
    " [ 0 1 ]\n"
    "<Softmax> 2 2\n"
    "</Nnet>\n";

Nnet ReadText(const std::string& text) {
  std::istringstream is(text);
  Nnet nnet;
  nnet.Read(false, &is);
  return nnet;
}

using Rows = std::vector<std::vector<float>>;

// Feeds `in` as frames `first`, `first` + 1, ..., ending the stream with `flush`.
Outputs Feed(Nnet* nnet, const MatrixBase& in, int first, bool flush) {
  Matrix out;
  std::vector<FrameInfo> info;
  if (flush) {
    nnet->FlushOutput(in, FrameInfos(first, in.NumRows()), &out, &info);
  } else {
    nnet->Compute(in, FrameInfos(first, in.NumRows()), &out, &info);
  }
  Outputs outputs;
  outputs.Append(out, info);
  return outputs;
}

TEST(NnetTest, ComputesSmallNetworkByHandAndRejectsInputOfTheWrongShape) {
  Nnet nnet = ReadText(kSmallNet);
  const Outputs out = Feed(&nnet, MatrixFromRows({{2, 1}, {-1, 3}}), 7, false);
  ASSERT_EQ(out.rows.size(), 2u);
  EXPECT_EQ(out.ids, (std::vector<int32>{7, 8}));
  // Row 0: hidden relu(2, 1, 1.5) -> logits (3, 2.5).
  // Row 1: hidden relu(-1, 3, -3.5) = (0, 3, 0) -> logits (3, 1).
  const float logits[2][2] = {{3.0f, 2.5f}, {3.0f, 1.0f}};
  for (int r = 0; r < 2; ++r) {
    const float z = std::exp(logits[r][0]) + std::exp(logits[r][1]);
    ASSERT_EQ(out.rows[r].size(), 2u);
    for (int k = 0; k < 2; ++k) EXPECT_NEAR(out.rows[r][k], std::exp(logits[r][k]) / z, 1e-6);
  }
  Matrix rows;
  std::vector<FrameInfo> info;
  EXPECT_EQ(KESTREL_ERROR_TEXT(nnet.Compute(Matrix(1, 3), FrameInfos(0, 1), &rows, &info)),
            "Nnet: input has 3 columns, the network expects 2.");
  EXPECT_EQ(KESTREL_ERROR_TEXT(nnet.Compute(Matrix(2, 2), FrameInfos(0, 1), &rows, &info)),
            "Nnet: input has 2 rows but 1 frame records.");
}

TEST(NnetTest, SpliceHoldsFramesBackAndFlushRepeatsTheLast) {
  // Offsets -1, 0, +2 over a 1-dimensional input: frame t outputs
  // (x[t-1], x[t], x[t+2]), clamped to the stream's ends.
  Nnet nnet = ReadText("<Nnet> <Splice> 3 1 [ -1 0 2 ] </Nnet>");
  EXPECT_EQ(Feed(&nnet, MatrixFromRows({{10}, {11}}), 0, false).rows, Rows{});  // waits for 2
  Outputs out = Feed(&nnet, MatrixFromRows({{12}, {13}}), 2, false);
  EXPECT_EQ(out.rows, (Rows{{10, 10, 12}, {10, 11, 13}}));
  EXPECT_EQ(out.ids, (std::vector<int32>{0, 1}));
  out = Feed(&nnet, MatrixFromRows({{14}}), 4, true);
  EXPECT_EQ(out.rows, (Rows{{11, 12, 14}, {12, 13, 14}, {13, 14, 14}}));
  EXPECT_EQ(out.ids, (std::vector<int32>{2, 3, 4}));
  // After a flush the next stream starts afresh.
  EXPECT_EQ(Feed(&nnet, MatrixFromRows({{20}}), 0, true).rows, (Rows{{20, 20, 20}}));
}

TEST(NnetTest, AcceptsNnet1TrainingTokensAndEndMarks) {
  Nnet nnet = ReadText(
      "<Nnet>\n<AffineTransform> 1 1\n<LearnRateCoef> 1 <BiasLearnRateCoef> 0.1 "
      "<MaxNorm> 0\n [\n  2 ]\n [ 1 ]\n<!EndOfComponent>\n"
      "<AddShift> 1 1 <LearnRateCoef> 0 [ 3 ]\n<!EndOfComponent>\n");
  EXPECT_EQ(Feed(&nnet, MatrixFromRows({{4}}), 0, true).rows, Rows{{2 * 4 + 1 + 3}});
}

// Feeds `input` in chunks of the given sizes (summing to its rows), flushing
// with the last one; frame ids from `first`.
Outputs FeedChunks(Nnet* nnet, const MatrixBase& input, const std::vector<int>& chunks,
                   int first = 100) {
  Outputs all;
  for (size_t i = 0, row = 0; i < chunks.size(); row += chunks[i++]) {
    all.Append(Feed(nnet, input.RowRange(row, chunks[i]), first + row, i + 1 == chunks.size()));
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
    chunks.push_back(std::min(std::uniform_int_distribution<int>(0, 9)(*rng), total));
    total -= chunks.back();
  }
  chunks.push_back(0);  // the flush
  return chunks;
}

void ExpectSameBits(const Outputs& a, const Outputs& b, const char* what) {
  ASSERT_EQ(a.rows.size(), b.rows.size()) << what;
  EXPECT_EQ(a.ids, b.ids) << what;
  for (size_t r = 0; r < a.rows.size(); ++r) {
    ASSERT_EQ(a.rows[r].size(), b.rows[r].size());
    EXPECT_EQ(std::memcmp(a.rows[r].data(), b.rows[r].data(), a.rows[r].size() * sizeof(float)), 0)
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

    const Outputs whole = FeedChunks(&nnet, input, {frames});
    ASSERT_EQ(whole.rows.size(), static_cast<size_t>(frames));
    for (int r = 0; r < frames; ++r) EXPECT_EQ(whole.ids[r], 100 + r);

    Outputs utterance;
    utterance.Append(WholeUtterance(nnet, input), FrameInfos(100, frames));
    ExpectSameBits(whole, utterance, "whole-utterance forward pass");

    std::vector<int> singles(frames, 1);
    singles.push_back(0);
    ExpectSameBits(whole, FeedChunks(&nnet, input, singles), "one row per call");
    for (int k = 0; k < 3; ++k) {
      ExpectSameBits(whole, FeedChunks(&nnet, input, RandomChunks(frames, &rng)), "random chunks");
    }
  }
}

TEST(NnetStreamTest, ResetMidStreamAndCopiesStartFromTheirOwnState) {
  std::mt19937 rng(5);
  for (int trial = 0; trial < 20; ++trial) {
    SCOPED_TRACE(trial);
    Nnet nnet = RandomNnet(&rng);
    const Matrix input = RandomMatrix(20, nnet.InputDim(), &rng);
    const Outputs whole = FeedChunks(&nnet, input, {20});

    // Half a stream, then a reset: the next stream is unaffected.
    Outputs both = Feed(&nnet, input.RowRange(0, 7), 100, false);
    Nnet copy = nnet;
    nnet.ResetComputation();
    ExpectSameBits(whole, FeedChunks(&nnet, input, {3, 17}), "after reset");

    // The copy continues the interrupted stream where it was.
    both.Append(Feed(&copy, input.RowRange(7, 13), 107, true));
    ExpectSameBits(whole, both, "copy");
  }
}

std::string ReadError(const std::string& text, bool binary = false) {
  std::istringstream is(text);
  Nnet nnet;
  return KESTREL_ERROR_TEXT(nnet.Read(binary, &is));
}

TEST(NnetReadTest, ErrorsNameComponentPositionAndProblem) {
  EXPECT_EQ(ReadError("<Nnet> <Relu> 2 2 <Sigmoid> 3 3 </Nnet>"),
            "Nnet: component 2 <Sigmoid>: input dimension 3 does not match the output "
            "dimension 2 of component 1 <Relu>.");
  EXPECT_EQ(ReadError("<Nnet> <Relu> 2 2 <Dropout> 2 2 </Nnet>"),
            "Nnet: component 2: unknown component token \"<Dropout>\" (expected <Splice>, "
            "<AddShift>, <Rescale>, <AffineTransform>, <Relu>, <Sigmoid>, <Tanh> or "
            "<Softmax>).");
  EXPECT_EQ(ReadError("<Nnet> <AffineTransform> 3 2 [\n 1 2\n 3 4 ]\n [ 0 0 0 ] </Nnet>"),
            "Nnet: component 1 <AffineTransform>: weight matrix is 2 x 2, expected 3 x 2 "
            "(output x input).");
  EXPECT_EQ(ReadError("<Nnet> <AffineTransform> 2 2 [\n 1 2\n 3 4 ]\n [ 0 ] </Nnet>"),
            "Nnet: component 1 <AffineTransform>: bias vector has 1 elements, expected 2.");
  EXPECT_EQ(ReadError("<Nnet> <Splice> 9 2 [ -1 0 1 ] </Nnet>"),
            "Nnet: component 1 <Splice>: output dimension 9 is not the input dimension 2 "
            "times the 3 offsets (6).");
  EXPECT_EQ(ReadError("<Nnet> <Softmax> 3 4 </Nnet>"),
            "Nnet: component 1 <Softmax>: output dimension 3 differs from input dimension 4 "
            "(they must be equal).");
  EXPECT_EQ(ReadError("<Nnet> <AddShift> 3 3 [ 1 2 ] </Nnet>"),
            "Nnet: component 1 <AddShift>: shift vector has 2 elements, expected 3.");
  EXPECT_EQ(ReadError("<Nnet> <Rescale> 2 2 [ 1 2 3 ] </Nnet>"),
            "Nnet: component 1 <Rescale>: scale vector has 3 elements, expected 2.");
  EXPECT_EQ(ReadError("<Nnet> <Relu> 0 0 </Nnet>"),
            "Nnet: component 1 <Relu>: dimensions must be positive, got output 0 and input 0.");
  EXPECT_EQ(ReadError("<Nnet> <AffineTransform> 1 1 <LearnRate> 1 [\n 1 ]\n [ 0 ] </Nnet>"),
            "Nnet: component 1 <AffineTransform>: unexpected token \"<LearnRate>\" before the "
            "parameters (expected <LearnRateCoef>, <BiasLearnRateCoef>, <MaxNorm> or the "
            "parameters).");
  EXPECT_EQ(ReadError("<Nnet> </Nnet>"), "Nnet: the network has no components.");
  EXPECT_EQ(ReadError("<Net> <Relu> 1 1"), "Expected token \"<Nnet>\", got instead \"<Net>\".");
  // Failures of the low-level readers carry the component too.
  const std::string bad_number =
      ReadError("<Nnet> <Relu> 2 2 <AffineTransform> 1 2 [\n 1 x ]\n [ 0 ] </Nnet>");
  EXPECT_EQ(bad_number.rfind("Nnet: component 2 <AffineTransform>: ", 0), 0u) << bad_number;
  EXPECT_NE(bad_number.find("\"x\""), std::string::npos) << bad_number;
  const std::string short_binary = ReadError(std::string("<Nnet> <Relu> \4\2\0\0\0", 13), true);
  EXPECT_EQ(short_binary.rfind("Nnet: component 1 <Relu>: ", 0), 0u) << short_binary;
}

std::string Serialise(const Nnet& nnet, bool binary) {
  std::ostringstream os;
  nnet.Write(binary, &os);
  return os.str();
}

std::string StripTrailingSpace(std::string s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.pop_back();
  return s;
}

// Every prefix of a written network, the whole file included.
TEST(NnetReadTest, WholeFilesRoundTripAndTruncationFailsCleanlyOrEndsBetweenComponents) {
  std::mt19937 rng(8);
  for (bool binary : {true, false}) {
    const std::string whole = Serialise(EveryKindNnet(&rng), binary);
    EXPECT_TRUE(binary || whole.find("<Splice> 6 2 \n[ -2 0 1 ]\n") != std::string::npos) << whole;
    for (size_t cut = 0; cut <= whole.size(); ++cut) {
      SCOPED_TRACE(::testing::Message() << (binary ? "binary" : "text") << " cut at " << cut);
      const std::string prefix = whole.substr(0, cut);
      std::istringstream is(prefix);
      Nnet nnet;
      const std::string error = KESTREL_ERROR_TEXT(nnet.Read(binary, &is));
      ASSERT_TRUE(cut < whole.size() || error.empty()) << error;
      if (!error.empty()) continue;
      // Accepted only when the file ended right after a component: the
      // prefix is then the components read, written out again, and at most
      // the end mark (white space aside in text).
      std::ostringstream expected;
      expected << "<Nnet> " << (binary ? "" : "\n");
      for (int i = 0; i < nnet.NumComponents(); ++i) nnet.GetComponent(i).Write(binary, &expected);
      std::string got = binary ? prefix : StripTrailingSpace(prefix);
      for (const std::string end_mark : {"</Nnet> ", "</Nnet>"}) {
        if (got.size() >= end_mark.size() &&
            got.compare(got.size() - end_mark.size(), end_mark.size(), end_mark) == 0) {
          got.erase(got.size() - end_mark.size());
          break;
        }
      }
      if (!binary) got = StripTrailingSpace(got);
      ASSERT_TRUE(got == (binary ? expected.str() : StripTrailingSpace(expected.str())));
    }
  }
}

TEST(NnetReadTest, CorruptedBytesNeverCrash) {
  std::mt19937 rng(9);
  int accepted = 0;
  for (int trial = 0; trial < 1500; ++trial) {
    const bool binary = trial % 2 == 0;
    std::string file = Serialise(RandomNnet(&rng), binary);
    const int changes = 1 + static_cast<int>(rng() % 3);
    for (int i = 0; i < changes; ++i) file[rng() % file.size()] = static_cast<char>(rng());
    std::istringstream is(file);
    Nnet nnet;
    if (KESTREL_ERROR_TEXT(nnet.Read(binary, &is)).empty()) ++accepted;
  }
  // Most corruptions hit floats, which any bit pattern decodes; the rest must
  // have been rejected with an error rather than a crash.
  EXPECT_GT(accepted, 0);
  EXPECT_LT(accepted, 1500);
}

std::vector<AffineKernel> AvailableKernels() {
  std::vector<AffineKernel> kernels = {AffineKernel::kPortable};
  if (BestAffineKernel() != AffineKernel::kPortable) kernels.push_back(BestAffineKernel());
  return kernels;
}

TEST(NnetKernelTest, MatchesPlainProductOnAwkwardShapes) {
  std::mt19937 rng(3);
  for (AffineKernel kernel : AvailableKernels()) {
    for (int in_dim : {1, 7, 256, 300, 640}) {
      for (int out_dim : {1, 12, 16, 17, 64, 80}) {
        for (int rows : {0, 1, 3, 4, 9}) {
          SCOPED_TRACE(::testing::Message() << "kernel " << static_cast<int>(kernel) << ", "
                                            << rows << " x " << in_dim << " -> " << out_dim);
          const Matrix w = RandomMatrix(out_dim, in_dim, &rng);
          const Vector b = RandomVector(out_dim, &rng);
          const Matrix x = RandomMatrix(rows, in_dim, &rng);
          PackedAffineWeights packed;
          packed.Pack(w, b);
          // Poison the output so unwritten elements show.
          Matrix y(rows, out_dim);
          y.Set(NAN);
          AffineForward(x, packed, &y, kernel);
          for (int r = 0; r < rows; ++r) {
            for (int o = 0; o < out_dim; ++o) {
              double expected = b(o);
              for (int i = 0; i < in_dim; ++i) expected += double(x(r, i)) * w(o, i);
              ASSERT_NEAR(y(r, o), expected, 1e-4 * std::sqrt(in_dim)) << r << ", " << o;
            }
          }
        }
      }
    }
  }
}

TEST(NnetKernelTest, RowResultDoesNotDependOnTheBatchAndOnlyOutputColumnsAreWritten) {
  std::mt19937 rng(4);
  for (AffineKernel kernel : AvailableKernels()) {
    SCOPED_TRACE(::testing::Message() << "kernel " << static_cast<int>(kernel));
    const int in_dim = 600, out_dim = 75, rows = 11;
    PackedAffineWeights packed;
    packed.Pack(RandomMatrix(out_dim, in_dim, &rng), RandomVector(out_dim, &rng));
    const Matrix x = RandomMatrix(rows, in_dim, &rng);
    // The batch goes to a view narrower than its storage, which must keep the rest.
    Matrix storage(rows, 2 * out_dim);
    storage.Set(7.0f);
    SubMatrix batch(storage.Data(), rows, out_dim, storage.Stride());
    AffineForward(x, packed, &batch, kernel);
    for (int r = 0; r < rows; ++r) {
      Matrix single(1, out_dim);
      AffineForward(x.RowRange(r, 1), packed, &single, kernel);
      EXPECT_EQ(std::memcmp(single.RowData(0), batch.RowData(r), sizeof(float) * out_dim), 0)
          << "row " << r;
      for (int c = out_dim; c < 2 * out_dim; ++c) ASSERT_EQ(storage(r, c), 7.0f) << r << ", " << c;
    }
  }
}

}  // namespace
}  // namespace kestrel
