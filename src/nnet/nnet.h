// Nnet: the per-model neural network that turns feature frames into per-frame
// posteriors of the hotword units.
//
// A network is a list of components applied in order (<Splice>, <AddShift>,
// <Rescale>, <AffineTransform>, <Relu>, <Sigmoid>, <Tanh>, <Softmax>), read
// and written in the token format (Kaldi nnet1 layout; see nnet-component.h).
//
// Streaming: Compute may be fed any number of rows per call and produces the
// same rows and FrameInfo records as one call on the whole stream would. A
// <Splice> with offsets -l..+r holds frames back until the frame r ahead has
// arrived; missing left context repeats the first frame, and FlushOutput
// emits what is held, repeating the last frame for the missing right context.
//
// Copyable (copies the parameters and the streaming state). One thread at a
// time; separate copies may run in parallel.
#ifndef KESTREL_NNET_NNET_H_
#define KESTREL_NNET_NNET_H_

#include <istream>
#include <memory>
#include <ostream>
#include <vector>

#include "nnet/frame-info.h"
#include "utils/kestrel-matrix.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

class Component;

class Nnet {
 public:
  Nnet();
  Nnet(const Nnet& other);
  Nnet& operator=(const Nnet& other);
  Nnet(Nnet&& other) noexcept;
  Nnet& operator=(Nnet&& other) noexcept;
  ~Nnet();

  // Reads "<Nnet> components... </Nnet>", replacing this network. Errors name
  // the component, its position and what was wrong.
  void Read(bool binary, std::istream* is);
  void Write(bool binary, std::ostream* os) const;

  int InputDim() const;   // first component's input dimension (0 if empty)
  int OutputDim() const;  // last component's output dimension (0 if empty)

  // Feeds `input` (InputDim() columns; may have 0 rows) with one record per
  // row, and replaces *output / *output_info with every frame that can be
  // produced so far.
  void Compute(const MatrixBase& input, const std::vector<FrameInfo>& input_info,
               Matrix* output, std::vector<FrameInfo>* output_info);
  // As Compute, then emits every held-back frame; the stream then starts anew.
  void FlushOutput(const MatrixBase& input, const std::vector<FrameInfo>& input_info,
                   Matrix* output, std::vector<FrameInfo>* output_info);
  // Forgets all held-back frames.
  void ResetComputation();

  // Component access, for tools and training.
  int NumComponents() const { return static_cast<int>(components_.size()); }
  const Component& GetComponent(int i) const { return *components_[i]; }
  Component& GetComponent(int i) { return *components_[i]; }
  // Takes ownership; the component's input must match OutputDim() (if any).
  void AppendComponent(std::unique_ptr<Component> component);

 private:
  // Runs the batch through every component; `flush` ends the stream.
  void Run(const MatrixBase& input, const std::vector<FrameInfo>& input_info, bool flush,
           Matrix* output, std::vector<FrameInfo>* output_info);
  // Replaces the streaming state with a fresh one sized for components_.
  void ResetState();

  std::vector<std::unique_ptr<Component>> components_;
  // Streaming state lives with the network implementation (nnet.cc). Null
  // only in a moved-from network; State() recreates it.
  struct StreamState;
  StreamState& State();
  std::unique_ptr<StreamState> state_;
};

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_NNET_NNET_H_
