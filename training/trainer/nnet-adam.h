// Adam: the optimiser the network trainer applies to each component's flat
// parameter array (Kingma and Ba, 2015).
//
//   m = b1 m + (1 - b1) g        v = b2 v + (1 - b2) g^2
//   p -= lr * (m / (1 - b1^t)) / (sqrt(v / (1 - b2^t)) + eps)
//
// Owns its moment estimates; one optimiser per parameter array. Training
// only; one thread at a time.
#ifndef KESTREL_NNET_NNET_ADAM_H_
#define KESTREL_NNET_NNET_ADAM_H_

#include <vector>

namespace kestrel {

struct AdamOptions {
  float learning_rate = 1e-3f;
  float beta1 = 0.9f;
  float beta2 = 0.999f;
  float epsilon = 1e-8f;
};

class AdamOptimizer {
 public:
  AdamOptimizer(int num_params, const AdamOptions& options);

  // One step against `gradient` (num_params floats) on `params`.
  void Step(const float* gradient, float* params);

 private:
  AdamOptions options_;
  std::vector<float> m_;
  std::vector<float> v_;
  double beta1_power_ = 1.0;  // b1^t and b2^t, in double: they approach 0
  double beta2_power_ = 1.0;
};

}  // namespace kestrel

#endif  // KESTREL_NNET_NNET_ADAM_H_
