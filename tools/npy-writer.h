// WriteNpy: a float32 matrix as a NumPy .npy file (format version 1.0), so
// that training tools can np.load what `kestrel features` computes.
#ifndef KESTREL_TOOLS_NPY_WRITER_H_
#define KESTREL_TOOLS_NPY_WRITER_H_

#include <string>
#include <vector>

namespace kestrel {

// Writes `rows` x `cols` values (row-major, `values.size()` == rows * cols)
// as little-endian float32 in C order. A file that cannot be written is a
// KestrelError naming it.
void WriteNpy(const std::string& path, const std::vector<float>& values, int rows, int cols);

}  // namespace kestrel

#endif  // KESTREL_TOOLS_NPY_WRITER_H_
