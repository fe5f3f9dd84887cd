#include "stream/stream-itf.h"

namespace kestrel {

bool StreamItf::Connect(StreamItf* stream) {
  connected_stream_ = stream;
  connected_ = true;
  return true;
}

bool StreamItf::Disconnect() {
  if (!connected_) return true;
  connected_ = false;
  connected_stream_ = nullptr;
  return true;
}

}  // namespace kestrel
