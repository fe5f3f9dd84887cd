#include "utils/kestrel-globals.h"

namespace kestrel {

std::string global_kestrel_string_delimiter = ",";
int global_kestrel_verbose_level = 0;

}  // namespace kestrel
