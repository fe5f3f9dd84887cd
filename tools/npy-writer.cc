#include "npy-writer.h"

#include <cstdint>
#include <cstring>
#include <fstream>

#include "utils/kestrel-log.h"

namespace kestrel {

void WriteNpy(const std::string& path, const std::vector<float>& values, int rows, int cols) {
  // Magic, version 1.0, a 16-bit little-endian header length, then a Python
  // dict literal padded with spaces and ended by '\n' so that the data
  // starts on a 64-byte boundary.
  std::string dict = "{'descr': '<f4', 'fortran_order': False, 'shape': (" +
                     std::to_string(rows) + ", " + std::to_string(cols) + "), }";
  const size_t preamble = 10;
  const size_t total = (preamble + dict.size() + 1 + 63) / 64 * 64;
  dict.append(total - preamble - dict.size() - 1, ' ');
  dict += '\n';
  std::string header = "\x93NUMPY";
  header += '\x01';
  header += '\x00';
  header += static_cast<char>(dict.size() & 0xFF);
  header += static_cast<char>(dict.size() >> 8);
  header += dict;

  std::string data(values.size() * 4, '\0');
  for (size_t i = 0; i < values.size(); ++i) {
    uint32_t bits;
    std::memcpy(&bits, &values[i], 4);
    for (int b = 0; b < 4; ++b) data[4 * i + b] = static_cast<char>((bits >> (8 * b)) & 0xFF);
  }
  std::ofstream os(path, std::ios::binary);
  os << header << data;
  os.close();
  if (!os) KESTREL_ERR("npy-writer") << path << ": cannot write file.";
}

}  // namespace kestrel
