// Reading, writing and computing small networks whose outputs are worked out
// by hand.
#include "nnet/nnet.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "nnet/nnet-component.h"
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

std::vector<FrameInfo> Infos(int first, int n) {
  std::vector<FrameInfo> infos(n);
  for (int i = 0; i < n; ++i) infos[i].frame_id = first + i;
  return infos;
}

Matrix Rows(const std::vector<std::vector<float>>& rows) {
  Matrix m(static_cast<int>(rows.size()), static_cast<int>(rows[0].size()));
  for (size_t r = 0; r < rows.size(); ++r) {
    for (size_t c = 0; c < rows[r].size(); ++c) m(r, c) = rows[r][c];
  }
  return m;
}

TEST(NnetTest, ComputesSmallNetworkByHand) {
  Nnet nnet = ReadText(kSmallNet);
  EXPECT_EQ(nnet.InputDim(), 2);
  EXPECT_EQ(nnet.OutputDim(), 2);
  EXPECT_EQ(nnet.NumComponents(), 4);

  Matrix in = Rows({{2, 1}, {-1, 3}});
  Matrix out;
  std::vector<FrameInfo> info;
  nnet.Compute(in, Infos(7, 2), &out, &info);
  ASSERT_EQ(out.NumRows(), 2);
  ASSERT_EQ(out.NumCols(), 2);
  // Row 0: hidden relu(2, 1, 1.5) -> logits (3, 2.5).
  // Row 1: hidden relu(-1, 3, -3.5) = (0, 3, 0) -> logits (3, 1).
  const float logits[2][2] = {{3.0f, 2.5f}, {3.0f, 1.0f}};
  for (int r = 0; r < 2; ++r) {
    const float z = std::exp(logits[r][0]) + std::exp(logits[r][1]);
    EXPECT_NEAR(out(r, 0), std::exp(logits[r][0]) / z, 1e-6);
    EXPECT_NEAR(out(r, 1), std::exp(logits[r][1]) / z, 1e-6);
  }
  ASSERT_EQ(info.size(), 2u);
  EXPECT_EQ(info[0].frame_id, 7);
  EXPECT_EQ(info[1].frame_id, 8);
}

TEST(NnetTest, SpliceHoldsFramesBackAndFlushRepeatsTheLast) {
  // Offsets -1, 0, +2 over a 1-dimensional input: frame t outputs
  // (x[t-1], x[t], x[t+2]), clamped to the stream's ends.
  Nnet nnet = ReadText("<Nnet> <Splice> 3 1 [ -1 0 2 ] </Nnet>");
  Matrix out;
  std::vector<FrameInfo> info;
  nnet.Compute(Rows({{10}, {11}}), Infos(0, 2), &out, &info);
  EXPECT_EQ(out.NumRows(), 0);  // frame 0 waits for frame 2
  EXPECT_TRUE(info.empty());

  nnet.Compute(Rows({{12}, {13}}), Infos(2, 2), &out, &info);
  ASSERT_EQ(out.NumRows(), 2);
  EXPECT_EQ(out(0, 0), 10);  // left context repeats the first frame
  EXPECT_EQ(out(0, 1), 10);
  EXPECT_EQ(out(0, 2), 12);
  EXPECT_EQ(out(1, 0), 10);
  EXPECT_EQ(out(1, 2), 13);
  EXPECT_EQ(info[1].frame_id, 1);

  nnet.FlushOutput(Rows({{14}}), Infos(4, 1), &out, &info);
  ASSERT_EQ(out.NumRows(), 3);  // frames 2, 3 and 4
  EXPECT_EQ(out(0, 2), 14);
  EXPECT_EQ(out(1, 2), 14);  // right context repeats the last frame
  EXPECT_EQ(out(2, 0), 13);
  EXPECT_EQ(out(2, 2), 14);
  EXPECT_EQ(info[2].frame_id, 4);

  // After a flush the next stream starts afresh.
  nnet.FlushOutput(Rows({{20}}), Infos(0, 1), &out, &info);
  ASSERT_EQ(out.NumRows(), 1);
  EXPECT_EQ(out(0, 0), 20);
  EXPECT_EQ(out(0, 2), 20);
}

TEST(NnetTest, ResetComputationForgetsHeldFrames) {
  Nnet nnet = ReadText("<Nnet> <Splice> 2 1 [ 0 1 ] </Nnet>");
  Matrix out;
  std::vector<FrameInfo> info;
  nnet.Compute(Rows({{1}, {2}}), Infos(0, 2), &out, &info);
  EXPECT_EQ(out.NumRows(), 1);
  nnet.ResetComputation();
  nnet.FlushOutput(Rows({{5}}), Infos(9, 1), &out, &info);
  ASSERT_EQ(out.NumRows(), 1);
  EXPECT_EQ(out(0, 0), 5);
  EXPECT_EQ(info[0].frame_id, 9);
}

TEST(NnetTest, WriteReadRoundTripsInBothModes) {
  const Nnet nnet = ReadText(
      "<Nnet> <Splice> 6 2 [ -1 0 1 ] <AddShift> 6 6 [ 1 2 3 4 5 6 ]\n"
      "<Rescale> 6 6 [ 0.5 0.25 2 1 1 1 ] <AffineTransform> 3 6\n"
      "[\n 1 2 3 4 5 6\n 0.1 0.2 0.3 0.4 0.5 0.6\n -1 -2 -3 -4 -5 -6 ]\n [ 0.125 -1 3 ]\n"
      "<Sigmoid> 3 3 <Tanh> 3 3 <Relu> 3 3 <Softmax> 3 3 </Nnet>");
  for (bool binary : {false, true}) {
    std::ostringstream os;
    nnet.Write(binary, &os);
    std::istringstream is(os.str());
    Nnet back;
    back.Read(binary, &is);
    std::ostringstream again;
    back.Write(binary, &again);
    EXPECT_EQ(os.str(), again.str()) << (binary ? "binary" : "text");
  }
  std::ostringstream text;
  nnet.Write(false, &text);
  EXPECT_NE(text.str().find("<Splice> 6 2 \n[ -1 0 1 ]\n"), std::string::npos) << text.str();
}

TEST(NnetTest, AcceptsNnet1TrainingTokensAndEndMarks) {
  Nnet nnet = ReadText(
      "<Nnet>\n<AffineTransform> 1 1\n<LearnRateCoef> 1 <BiasLearnRateCoef> 0.1 "
      "<MaxNorm> 0\n [\n  2 ]\n [ 1 ]\n<!EndOfComponent>\n"
      "<AddShift> 1 1 <LearnRateCoef> 0 [ 3 ]\n<!EndOfComponent>\n");
  Matrix out;
  std::vector<FrameInfo> info;
  nnet.FlushOutput(Rows({{4}}), Infos(0, 1), &out, &info);
  EXPECT_EQ(out(0, 0), 2 * 4 + 1 + 3);
}

TEST(NnetTest, CopiesAreIndependent) {
  Nnet nnet = ReadText("<Nnet> <Splice> 2 1 [ 0 1 ] </Nnet>");
  Matrix out;
  std::vector<FrameInfo> info;
  nnet.Compute(Rows({{1}}), Infos(0, 1), &out, &info);
  Nnet copy = nnet;  // carries the held frame
  nnet.ResetComputation();
  copy.FlushOutput(Rows({{2}}), Infos(1, 1), &out, &info);
  ASSERT_EQ(out.NumRows(), 2);
  EXPECT_EQ(out(0, 0), 1);
  EXPECT_EQ(out(0, 1), 2);
  nnet.FlushOutput(Rows({{7}}), Infos(0, 1), &out, &info);
  ASSERT_EQ(out.NumRows(), 1);
  EXPECT_EQ(out(0, 0), 7);
}

TEST(NnetTest, RejectsInputOfTheWrongShape) {
  Nnet nnet = ReadText(kSmallNet);
  Matrix out;
  std::vector<FrameInfo> info;
  EXPECT_EQ(KESTREL_ERROR_TEXT(nnet.Compute(Matrix(1, 3), Infos(0, 1), &out, &info)),
            "Nnet: input has 3 columns, the network expects 2.");
  EXPECT_EQ(KESTREL_ERROR_TEXT(nnet.Compute(Matrix(2, 2), Infos(0, 1), &out, &info)),
            "Nnet: input has 2 rows but 1 frame records.");
}

}  // namespace
}  // namespace kestrel
