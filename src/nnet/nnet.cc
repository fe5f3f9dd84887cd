#include "nnet/nnet.h"

#include <string>
#include <utility>

#include "nnet/nnet-component.h"
#include "nnet/nnet-splice.h"
#include "utils/kestrel-io.h"
#include "utils/kestrel-log.h"

namespace kestrel {

namespace {
const char kLogFile[] = "nnet";
}  // namespace

// What the network remembers between Compute calls, and the buffers it
// reuses so that a steady stream of equal batches does not allocate.
struct Nnet::StreamState {
  std::vector<SpliceHistory> splices;  // one per component; used by Splices
  std::vector<Matrix> outputs;         // output of every component but the last
  std::vector<FrameInfo> pending;      // records of frames not yet emitted, in order
};

Nnet::Nnet() : state_(std::make_unique<StreamState>()) {}

Nnet::Nnet(const Nnet& other)
    : state_(other.state_ ? std::make_unique<StreamState>(*other.state_)
                          : std::make_unique<StreamState>()) {
  for (const auto& c : other.components_) components_.push_back(c->Copy());
}

Nnet& Nnet::operator=(const Nnet& other) {
  if (this != &other) *this = Nnet(other);
  return *this;
}

Nnet::Nnet(Nnet&& other) noexcept = default;
Nnet& Nnet::operator=(Nnet&& other) noexcept = default;
Nnet::~Nnet() = default;

int Nnet::InputDim() const { return components_.empty() ? 0 : components_.front()->InputDim(); }

int Nnet::OutputDim() const { return components_.empty() ? 0 : components_.back()->OutputDim(); }

void Nnet::Read(bool binary, std::istream* is) {
  ExpectToken(binary, "<Nnet>", is);
  std::vector<std::unique_ptr<Component>> components;
  for (int position = 1;; ++position) {
    const int next = PeekToken(binary, is);
    // The network may close the file without "</Nnet>" (a lone '<' at the
    // end also peeks as -1, and is read below as an unknown component).
    if (next == -1 && is->peek() == EOF) break;
    if (next == '/') {
      ExpectToken(binary, "</Nnet>", is);
      break;
    }
    std::unique_ptr<Component> c = Component::Read(binary, is, position);
    if (!components.empty() && components.back()->OutputDim() != c->InputDim()) {
      KESTREL_ERR(kLogFile) << "Nnet: component " << position << " " << c->Token()
                            << ": input dimension " << c->InputDim()
                            << " does not match the output dimension "
                            << components.back()->OutputDim() << " of component "
                            << position - 1 << " " << components.back()->Token() << ".";
    }
    components.push_back(std::move(c));
  }
  if (components.empty()) KESTREL_ERR(kLogFile) << "Nnet: the network has no components.";
  components_ = std::move(components);
  ResetState();
}

void Nnet::Write(bool binary, std::ostream* os) const {
  WriteToken(binary, "<Nnet>", os);
  if (!binary) *os << "\n";
  for (const auto& c : components_) c->Write(binary, os);
  WriteToken(binary, "</Nnet>", os);
  if (!binary) *os << "\n";
  if (os->fail()) KESTREL_ERR(kLogFile) << "Nnet: failed to write the network.";
}

void Nnet::AppendComponent(std::unique_ptr<Component> component) {
  if (!components_.empty() && component->InputDim() != OutputDim()) {
    KESTREL_ERR(kLogFile) << "Nnet: cannot append " << component->Token() << " with input "
                          << "dimension " << component->InputDim()
                          << " after a network that outputs " << OutputDim() << ".";
  }
  components_.push_back(std::move(component));
  ResetState();
}

void Nnet::Compute(const MatrixBase& input, const std::vector<FrameInfo>& input_info,
                   Matrix* output, std::vector<FrameInfo>* output_info) {
  Run(input, input_info, false, output, output_info);
}

void Nnet::FlushOutput(const MatrixBase& input, const std::vector<FrameInfo>& input_info,
                       Matrix* output, std::vector<FrameInfo>* output_info) {
  Run(input, input_info, true, output, output_info);
}

void Nnet::ResetComputation() {
  StreamState& state = State();
  for (SpliceHistory& h : state.splices) h.Reset();
  state.pending.clear();
}

Nnet::StreamState& Nnet::State() {
  if (state_ == nullptr) ResetState();  // moved-from networks start afresh
  return *state_;
}

void Nnet::ResetState() {
  state_ = std::make_unique<StreamState>();
  state_->splices.resize(components_.size());
  if (!components_.empty()) state_->outputs.resize(components_.size() - 1);
}

void Nnet::Run(const MatrixBase& input, const std::vector<FrameInfo>& input_info, bool flush,
               Matrix* output, std::vector<FrameInfo>* output_info) {
  if (components_.empty()) {
    KESTREL_ERR(kLogFile) << "Nnet: cannot compute with an empty network.";
  }
  if (input.NumCols() != InputDim()) {
    KESTREL_ERR(kLogFile) << "Nnet: input has " << input.NumCols()
                          << " columns, the network expects " << InputDim() << ".";
  }
  if (input_info.size() != static_cast<size_t>(input.NumRows())) {
    KESTREL_ERR(kLogFile) << "Nnet: input has " << input.NumRows() << " rows but "
                          << input_info.size() << " frame records.";
  }
  StreamState& state = State();
  state.pending.insert(state.pending.end(), input_info.begin(), input_info.end());

  const MatrixBase* in = &input;
  const int last = NumComponents() - 1;
  for (int i = 0; i <= last; ++i) {
    const Component& c = *components_[i];
    Matrix* out = i == last ? output : &state.outputs[i];
    if (const Splice* splice = dynamic_cast<const Splice*>(&c)) {
      state.splices[i].Feed(*splice, *in, flush, out);
    } else {
      out->Resize(in->NumRows(), c.OutputDim(), kUndefined);
      c.Propagate(*in, out);
    }
    in = out;
  }

  // Every component emits frames in order, one per input frame in the end,
  // so the emitted rows are the oldest pending frames.
  const auto emitted = state.pending.begin() + output->NumRows();
  output_info->assign(state.pending.begin(), emitted);
  state.pending.erase(state.pending.begin(), emitted);
}

}  // namespace kestrel
