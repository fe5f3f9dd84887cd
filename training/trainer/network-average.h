// Weight averaging of networks trained on from one starting network.
//
// One pass of training from a given network moves the held-out misses by as
// much as the changes to the data or augmentation that are being judged, with
// nothing but the sampling seed changed. Runs that start from the same
// weights at a small step stay in the same basin, so the average of their
// weights is itself a network of that basin, with the seeds' noise averaged
// out rather than picked from.
//
// Plain functions; any thread.
#ifndef KESTREL_TRAINING_TRAINER_NETWORK_AVERAGE_H_
#define KESTREL_TRAINING_TRAINER_NETWORK_AVERAGE_H_

#include <string>
#include <vector>

#include "nnet/nnet.h"

namespace kestrel {

// Why `nets` cannot be averaged (none given, or two that differ in a
// component's layout, named by position with both layouts), or "" when they
// can.
std::string NetworkAverageProblem(const std::vector<Nnet>& nets);

// A copy of the first network whose parameters are the mean of all the
// networks' parameters: summed in single precision in the order given, then
// divided by their number. Parameter-free components (splices, softmax) are
// the first's. An error (KestrelError) when NetworkAverageProblem is not "".
Nnet AverageNetworks(const std::vector<Nnet>& nets);

}  // namespace kestrel

#endif  // KESTREL_TRAINING_TRAINER_NETWORK_AVERAGE_H_
