// Malformed network files: every error names the component, its position and
// what was wrong, and no truncation or corruption crashes the reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <random>
#include <sstream>
#include <string>

#include "nnet-test-util.h"
#include "nnet/nnet.h"
#include "test-log-capture.h"

namespace kestrel {
namespace {

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
}

TEST(NnetReadTest, LowLevelFailuresCarryTheComponent) {
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

// Every kind of component, small enough to cut at every byte.
Nnet SmallNetOfEveryKind(std::mt19937* rng) {
  Nnet nnet;
  nnet.AppendComponent(std::make_unique<Splice>(2, std::vector<int32>{-1, 0, 1}));
  nnet.AppendComponent(std::make_unique<AddShift>(RandomVector(6, rng)));
  nnet.AppendComponent(std::make_unique<Rescale>(RandomVector(6, rng)));
  nnet.AppendComponent(RandomAffine(6, 4, rng));
  nnet.AppendComponent(std::make_unique<Sigmoid>(4));
  nnet.AppendComponent(std::make_unique<Tanh>(4));
  nnet.AppendComponent(RandomAffine(4, 3, rng));
  nnet.AppendComponent(std::make_unique<Relu>(3));
  nnet.AppendComponent(std::make_unique<Softmax>(3));
  return nnet;
}

TEST(NnetReadTest, TruncationEitherFailsCleanlyOrEndsBetweenComponents) {
  std::mt19937 rng(8);
  for (bool binary : {true, false}) {
    const Nnet original = SmallNetOfEveryKind(&rng);
    const std::string whole = Serialise(original, binary);
    for (size_t cut = 0; cut < whole.size(); ++cut) {
      SCOPED_TRACE(::testing::Message() << (binary ? "binary" : "text") << " cut at " << cut);
      const std::string prefix = whole.substr(0, cut);
      std::istringstream is(prefix);
      Nnet nnet;
      if (!KESTREL_ERROR_TEXT(nnet.Read(binary, &is)).empty()) continue;
      // Accepted only when the file ended right after a component: the
      // prefix is then the first components, written out, and at most the
      // end mark.
      std::ostringstream expected;
      expected << "<Nnet> " << (binary ? "" : "\n");
      for (int i = 0; i < nnet.NumComponents(); ++i) {
        original.GetComponent(i).Write(binary, &expected);
      }
      std::string got = binary ? prefix : StripTrailingSpace(prefix);
      for (const char* end_mark : {"</Nnet> ", "</Nnet>"}) {
        const size_t n = std::strlen(end_mark);
        if (got.size() >= n && got.compare(got.size() - n, n, end_mark) == 0) {
          got.erase(got.size() - n);
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

}  // namespace
}  // namespace kestrel
