#include "network-average.h"

#include <sstream>
#include <vector>

#include "component-layout.h"
#include "nnet/nnet-component.h"
#include "utils/kestrel-log.h"

namespace kestrel {

namespace {
const char kLogFile[] = "network-average";
}  // namespace

std::string NetworkAverageProblem(const std::vector<Nnet>& nets) {
  if (nets.empty()) return "no networks to average";
  const Nnet& first = nets[0];
  for (size_t n = 1; n < nets.size(); ++n) {
    if (nets[n].NumComponents() != first.NumComponents()) {
      std::ostringstream problem;
      problem << "network " << n + 1 << " has " << nets[n].NumComponents()
              << " components, network 1 has " << first.NumComponents();
      return problem.str();
    }
    for (int c = 0; c < first.NumComponents(); ++c) {
      const std::string want = ComponentLayout(first.GetComponent(c));
      const std::string got = ComponentLayout(nets[n].GetComponent(c));
      if (got != want) {
        return "network " + std::to_string(n + 1) + " differs from network 1 at component " +
               std::to_string(c + 1) + " (" + got + " against " + want + ")";
      }
    }
  }
  return "";
}

Nnet AverageNetworks(const std::vector<Nnet>& nets) {
  const std::string problem = NetworkAverageProblem(nets);
  if (!problem.empty()) KESTREL_ERR(kLogFile) << "AverageNetworks: " << problem << ".";
  Nnet average(nets[0]);
  const float count = static_cast<float>(nets.size());
  for (int c = 0; c < average.NumComponents(); ++c) {
    Component& component = average.GetComponent(c);
    const int size = component.NumParams();
    if (size == 0) continue;
    std::vector<float> sum(size, 0.0f), params(size);
    for (const Nnet& net : nets) {
      net.GetComponent(c).GetParams(params.data());
      for (int i = 0; i < size; ++i) sum[i] += params[i];
    }
    for (float& s : sum) s /= count;
    component.SetParams(sum.data());
  }
  return average;
}

}  // namespace kestrel
