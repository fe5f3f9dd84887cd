#include "output-scale.h"

#include <cmath>
#include <cstring>
#include <vector>

#include "nnet/nnet-component.h"
#include "utils/kestrel-log.h"

namespace kestrel {

namespace {
const char kLogFile[] = "output-scale";
}  // namespace

Nnet ScaleOutputLogits(const Nnet& nnet, float scale) {
  if (!(scale > 0.0f) || !std::isfinite(scale)) {
    KESTREL_ERR(kLogFile) << "ScaleOutputLogits: the scale must be above 0, not " << scale << ".";
  }
  const int n = nnet.NumComponents();
  if (n < 2 || std::strcmp(nnet.GetComponent(n - 1).Token(), "<Softmax>") != 0 ||
      std::strcmp(nnet.GetComponent(n - 2).Token(), "<AffineTransform>") != 0) {
    KESTREL_ERR(kLogFile)
        << "ScaleOutputLogits: the network does not end in an <AffineTransform> and a <Softmax>.";
  }
  Nnet scaled(nnet);
  Component& affine = scaled.GetComponent(n - 2);
  std::vector<float> params(affine.NumParams());
  affine.GetParams(params.data());
  for (float& p : params) p *= scale;
  affine.SetParams(params.data());
  return scaled;
}

}  // namespace kestrel
