#include "nnet-adam.h"

#include <cmath>

namespace kestrel {

AdamOptimizer::AdamOptimizer(int num_params, const AdamOptions& options)
    : options_(options), m_(num_params, 0.0f), v_(num_params, 0.0f) {}

void AdamOptimizer::Step(const float* gradient, float* params) {
  beta1_power_ *= options_.beta1;
  beta2_power_ *= options_.beta2;
  const float b1 = options_.beta1;
  const float b2 = options_.beta2;
  // The bias corrections folded into the step size and epsilon.
  const float step = options_.learning_rate * static_cast<float>(std::sqrt(1.0 - beta2_power_) /
                                                                 (1.0 - beta1_power_));
  const float eps = options_.epsilon * static_cast<float>(std::sqrt(1.0 - beta2_power_));
  for (size_t i = 0; i < m_.size(); ++i) {
    const float g = gradient[i];
    m_[i] = b1 * m_[i] + (1.0f - b1) * g;
    v_[i] = b2 * v_[i] + (1.0f - b2) * g * g;
    params[i] -= step * m_[i] / (std::sqrt(v_[i]) + eps);
  }
}

}  // namespace kestrel
