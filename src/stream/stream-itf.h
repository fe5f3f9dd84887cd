// StreamItf: one stage of a pull-driven processing chain.
//
// A stage is joined to the stage in front of it with Connect; the consumer
// pulls data through the chain by calling Read on the last stage, which calls
// Read on its upstream stage, and so on. A stage borrows its upstream stage
// (never owns it); the caller keeps it alive while connected.
//
// Read returns a signal word: a set of the bits below. A source at the end of
// its input returns its last data with kSignalFlush, and kSignalEnd with no
// data on every later call.
//
// Stages are not thread-safe: one thread drives a chain at a time.
#ifndef KESTREL_STREAM_STREAM_ITF_H_
#define KESTREL_STREAM_STREAM_ITF_H_

#include <string>
#include <vector>

#include "nnet/frame-info.h"
#include "utils/kestrel-matrix.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

enum StreamSignal {
  kSignalEnd = 0x02,             // the stream has ended; no data comes with it
  kSignalEndOfUtterance = 0x08,  // the data returned closes an utterance
  kSignalFlush = 0x10,           // the data returned is the last; push out what is held
  kSignalError = 0x40,           // upstream failed
  kSignalAbort = 0x80,           // the host asked the chain to stop
};

// Any of these bits: stop at once, process nothing.
constexpr int kSignalStopMask = kSignalEnd | kSignalError | kSignalAbort;  // 0xC2
// Any of these bits: process the data, then flush what is held back.
constexpr int kSignalFlushMask = kSignalEndOfUtterance | kSignalFlush;  // 0x18

class StreamItf {
 public:
  StreamItf() = default;
  virtual ~StreamItf() = default;

  // Fills `data` with this stage's output for the call and `frame_info` (may
  // be null) with one record per row; returns the signal word.
  virtual int Read(Matrix* data, std::vector<FrameInfo>* frame_info) = 0;

  // Restarts this stage's processing of the stream.
  virtual bool Reset() = 0;

  // Printable stage name; prefixes the stage's log messages.
  virtual std::string Name() const = 0;

  // Makes `stream` the upstream stage (replacing any earlier one). Always true.
  virtual bool Connect(StreamItf* stream);

  // Forgets the upstream stage. Never fails.
  virtual bool Disconnect();

  StreamItf(const StreamItf&) = delete;
  StreamItf& operator=(const StreamItf&) = delete;

 protected:
  bool connected_ = false;
  StreamItf* connected_stream_ = nullptr;  // not owned
};

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_STREAM_STREAM_ITF_H_
