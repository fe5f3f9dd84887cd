#include <gtest/gtest.h>

#include "stream/stream-itf.h"

namespace kestrel {
namespace {

// Reports which stage it is connected to through Read's return value.
class ProbeStream : public StreamItf {
 public:
  int Read(Matrix*, std::vector<FrameInfo>*) override {
    return connected_ ? (connected_stream_ == nullptr ? 1 : 2) : 0;
  }
  bool Reset() override { return true; }
  std::string Name() const override { return "ProbeStream"; }
  StreamItf* upstream() const { return connected_stream_; }
};

TEST(StreamItfTest, ConnectReplacesAndDisconnectNeverFails) {
  ProbeStream a, b, c;
  Matrix m;
  EXPECT_TRUE(a.Disconnect());
  EXPECT_EQ(0, a.Read(&m, nullptr));
  EXPECT_TRUE(a.Connect(&b));
  EXPECT_TRUE(a.Connect(&c));
  EXPECT_EQ(&c, a.upstream());
  EXPECT_EQ(2, a.Read(&m, nullptr));
  EXPECT_TRUE(a.Disconnect());
  EXPECT_EQ(nullptr, a.upstream());
  EXPECT_EQ(0, a.Read(&m, nullptr));
}

}  // namespace
}  // namespace kestrel
