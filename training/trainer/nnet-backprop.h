// Backward passes of the network's row-by-row components, for training. The
// runtime's components only run forward; these follow each kind's forward
// pass (nnet-activation.h, nnet-affine-transform.h, ...) and read its
// parameters through its accessors. A <Splice> looks across rows, so the
// trainer, which knows which frames its rows are, handles it (nnet-train.h).
//
// Stateless functions; any thread, on its own matrices.
#ifndef KESTREL_TRAINING_NNET_BACKPROP_H_
#define KESTREL_TRAINING_NNET_BACKPROP_H_

#include "nnet/nnet-component.h"
#include "utils/kestrel-matrix.h"

namespace kestrel {

// in_diff (sized like in) = d objective / d in, given out_diff = d objective
// / d out; `in` and `out` are those of the forward pass. A kind without a
// backward pass here is an error naming it.
void Backpropagate(const Component& component, const MatrixBase& in, const MatrixBase& out,
                   const MatrixBase& out_diff, MatrixBase* in_diff);

// gradient (component.NumParams() floats, laid out like GetParams) +=
// d objective / d parameters, given the forward input and out_diff. Nothing
// for kinds without parameters. Only the parameters of outputs
// [first_output, end_output) are touched (-1: to the last), each summed over
// the rows in order, so that threads can share the work over outputs and
// still give the one-thread result bit for bit.
void AccumulateGradient(const Component& component, const MatrixBase& in,
                        const MatrixBase& out_diff, float* gradient, int first_output = 0,
                        int end_output = -1);

}  // namespace kestrel

#endif  // KESTREL_TRAINING_NNET_BACKPROP_H_
