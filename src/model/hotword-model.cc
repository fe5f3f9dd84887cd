#include "model/hotword-model.h"

#include <algorithm>
#include <limits>
#include <sstream>

#include "utils/kestrel-io.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-matrix.h"

namespace kestrel {

namespace {

const char kLogFile[] = "hotword-model";

// Every network output costs the detector two buffers; hotword networks have
// a few dozen outputs, and a corrupted dimension must not exhaust memory.
constexpr int kMaxNetworkOutputs = 1 << 16;

const float kDefaultSearchFloor = 0.05f;

const char kNamesToken[] = "<HotwordNames>";
const char kNamesEndToken[] = "</HotwordNames>";

// A name as one token: spaces become '_', which names never hold.
std::string NameToken(std::string name) {
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

std::string NameFromToken(std::string token) {
  std::replace(token.begin(), token.end(), '_', ' ');
  return token;
}

// Truncates toward zero like a cast, saturating where a cast is undefined.
int32 TruncateToInt32(float x) {
  if (x >= 2147483648.0f) return std::numeric_limits<int32>::max();
  if (x < -2147483648.0f) return std::numeric_limits<int32>::min();
  return static_cast<int32>(x);
}

// Reads one record; the search group's floor is returned as read, with
// `has_search_group` telling whether it was there.
void ReadRecord(bool binary, std::istream* is, HotwordRecord* record, bool* has_search_group) {
  ExpectToken(binary, "<Kw>", is);
  ReadIntegerVector(binary, &record->keyword, is);
  ExpectToken(binary, "<Sensitivity>", is);
  ReadBasicType(binary, &record->sensitivity, is);
  *has_search_group = false;
  if (PeekToken(binary, is) == 'S') {
    *has_search_group = true;
    ExpectToken(binary, "<SearchMethod>", is);
    ReadBasicType(binary, &record->search_method, is);
    ExpectToken(binary, "<SearchNeighbour>", is);
    ReadBasicType(binary, &record->search_neighbour, is);
    ExpectToken(binary, "<SearchMask>", is);
    ReadIntegerVector(binary, &record->search_mask, is);
    ExpectToken(binary, "<SearchFloor>", is);
    Vector floor;
    floor.Read(binary, is);
    record->search_floor.assign(floor.Data(), floor.Data() + floor.Dim());
  }
  if (PeekToken(binary, is) == 'S') {
    ExpectToken(binary, "<SearchMax>", is);
    ReadBasicType(binary, &record->search_max, is);
  }
  if (PeekToken(binary, is) == 'N') {
    ExpectToken(binary, "<NumPieces>", is);
    ReadBasicType(binary, &record->num_pieces, is);
  }
  if (PeekToken(binary, is) == 'D') {
    ExpectToken(binary, "<DurationPass>", is);
    ReadBasicType(binary, &record->duration_pass, is);
    ExpectToken(binary, "<FloorPass>", is);
    ReadBasicType(binary, &record->floor_pass, is);
  }
}

void WriteRecord(bool binary, const HotwordRecord& record, std::ostream* os) {
  WriteToken(binary, "<Kw>", os);
  WriteIntegerVector(binary, record.keyword, os);
  WriteToken(binary, "<Sensitivity>", os);
  WriteBasicType(binary, record.sensitivity, os);
  WriteToken(binary, "<SearchMethod>", os);
  WriteBasicType(binary, record.search_method, os);
  WriteToken(binary, "<SearchNeighbour>", os);
  WriteBasicType(binary, record.search_neighbour, os);
  WriteToken(binary, "<SearchMask>", os);
  WriteIntegerVector(binary, record.search_mask, os);
  WriteToken(binary, "<SearchFloor>", os);
  Vector floor(static_cast<int>(record.search_floor.size()));
  std::copy(record.search_floor.begin(), record.search_floor.end(), floor.Data());
  floor.Write(binary, os);
  WriteToken(binary, "<SearchMax>", os);
  WriteBasicType(binary, record.search_max, os);
  WriteToken(binary, "<NumPieces>", os);
  WriteBasicType(binary, record.num_pieces, os);
  WriteToken(binary, "<DurationPass>", os);
  WriteBasicType(binary, record.duration_pass, os);
  WriteToken(binary, "<FloorPass>", os);
  WriteBasicType(binary, record.floor_pass, os);
  if (!binary) *os << "\n";
}

// Consumes the "\0B" marker if `is` starts with it.
bool ReadBinaryMarker(std::istream* is) {
  const std::istream::pos_type start = is->tellg();
  char marker[2] = {0, 0};
  is->read(marker, 2);
  if (is->gcount() == 2 && marker[0] == '\0' && marker[1] == 'B') return true;
  is->clear();
  is->seekg(start);
  return false;
}

}  // namespace

const char* SearchMethodName(int32 method) {
  switch (method) {
    case kNaiveSearch: return "naive";
    case kDtwSearch: return "DTW";
    case kViterbiSearch: return "Viterbi";
    case kPiecewiseSearch: return "piecewise";
    case kViterbiReduplicationSearch: return "Viterbi with reduplication";
    case kViterbiSoftFloorSearch: return "soft-floor Viterbi";
    case kViterbiTracebackSearch: return "Viterbi with traceback";
    case kViterbiTracebackLogSearch: return "log-domain Viterbi with traceback";
    default: return "unknown";
  }
}

std::vector<int32> HotwordModel::EvenSearchMask(size_t num_units, int32 slide_window) {
  // The first entry is 0 also for an empty keyword, where the division has
  // no value.
  std::vector<int32> mask(num_units + 1, 0);
  for (size_t i = 1; i <= num_units; ++i) {
    mask[i] = TruncateToInt32(static_cast<float>(i) / static_cast<float>(num_units) *
                              static_cast<float>(slide_window));
  }
  return mask;
}

HotwordModel HotwordModel::ReadFile(const std::string& path, const std::string& reporter) {
  Input input(path);
  HotwordModel model;
  model.name = path;
  model.ReadBody(input.Binary(), input.Stream(), reporter);
  return model;
}

HotwordModel HotwordModel::ReadMemory(const void* data, size_t size, const std::string& name,
                                      const std::string& reporter) {
  std::istringstream is(std::string(static_cast<const char*>(data), size));
  return Read(is, name, reporter);
}

HotwordModel HotwordModel::Read(std::istream& is, const std::string& name,
                                const std::string& reporter) {
  HotwordModel model;
  model.name = name;
  const bool binary = ReadBinaryMarker(&is);
  model.ReadBody(binary, &is, reporter);
  return model;
}

void HotwordModel::ReadBody(bool binary, std::istream* is, const std::string& reporter) {
  ExpectToken(binary, "<UniversalModel>", is);
  ExpectToken(binary, "<KwInfo>", is);
  ExpectToken(binary, "<SmoothWindow>", is);
  ReadBasicType(binary, &smooth_window, is);
  ExpectToken(binary, "<SlideWindow>", is);
  ReadBasicType(binary, &slide_window, is);
  ExpectToken(binary, "<NumKws>", is);
  int32 num_hotwords = 0;
  ReadBasicType(binary, &num_hotwords, is);
  if (num_hotwords < 0) {
    KESTREL_ERR(kLogFile) << reporter << ": model file \"" << name << "\": <NumKws> is "
                          << num_hotwords << ", expected 0 or more hotwords.";
  }
  // Records are added as they are read rather than sized from <NumKws> up
  // front, so a corrupted count fails at its first missing record instead of
  // allocating for hotwords that are not there. Each is checked before the
  // next is read, so the first fault in the file is the one reported.
  hotwords.clear();
  for (int32 k = 0; k < num_hotwords; ++k) {
    HotwordRecord record;
    bool has_search_group = false;
    ReadRecord(binary, is, &record, &has_search_group);
    const size_t num_units = record.keyword.size();
    if (!has_search_group) {
      record.search_floor.assign(num_units, kDefaultSearchFloor);
      record.search_mask = EvenSearchMask(num_units, slide_window);
    } else if (record.search_floor.size() > num_units) {
      record.search_floor.resize(num_units);
    }
    hotwords.push_back(std::move(record));
    CheckHotword(hotwords.size() - 1, reporter);
  }
  ExpectToken(binary, "</KwInfo>", is);
  nnet.Read(binary, is);
  CheckNetwork(reporter);
  ReadNames(binary, is, reporter);
}

void HotwordModel::ReadNames(bool binary, std::istream* is, const std::string& reporter) {
  // Whatever else follows the network has always been ignored, and still is.
  if (PeekToken(binary, is) != 'H') return;
  const std::string where = reporter + ": model file \"" + name + "\": ";
  std::string token;
  ReadToken(binary, &token, is);
  if (token != kNamesToken) {
    KESTREL_ERR(kLogFile) << where << "expected " << kNamesToken << " after the network, got \""
                          << token.substr(0, 40) << "\".";
  }
  int32 count = -1;
  try {
    ReadBasicType(binary, &count, is);
  } catch (const KestrelError&) {
    count = -1;
  }
  if (count != static_cast<int32>(hotwords.size())) {
    KESTREL_ERR(kLogFile) << where << kNamesToken << " must give one name for each of the "
                          << hotwords.size() << " hotwords, not a count of "
                          << (count < 0 ? std::string("(unreadable)") : std::to_string(count))
                          << ".";
  }
  for (HotwordRecord& record : hotwords) {
    ReadToken(binary, &token, is);
    record.name = NameFromToken(token);
  }
  ReadToken(binary, &token, is);
  if (token != kNamesEndToken) {
    KESTREL_ERR(kLogFile) << where << kNamesToken << " of " << count << " names ends with \""
                          << token.substr(0, 40) << "\" instead of " << kNamesEndToken << ".";
  }
  CheckNames(reporter);
}

void HotwordModel::WriteNames(bool binary, std::ostream* os) const {
  if (hotwords.empty() || hotwords[0].name.empty()) return;
  WriteToken(binary, kNamesToken, os);
  WriteBasicType(binary, static_cast<int32>(hotwords.size()), os);
  for (const HotwordRecord& record : hotwords) WriteToken(binary, NameToken(record.name), os);
  WriteToken(binary, kNamesEndToken, os);
  if (!binary) *os << "\n";
}

bool HotwordModel::IsStorableHotwordName(const std::string& name) {
  if (name.empty() || name.front() == ' ' || name.back() == ' ') return false;
  for (unsigned char c : name) {
    if (c < 0x20 || c == 0x7f || c == '_') return false;
  }
  return true;
}

void HotwordModel::CheckNames(const std::string& reporter) const {
  const bool named = !hotwords.empty() && !hotwords[0].name.empty();
  for (size_t k = 0; k < hotwords.size(); ++k) {
    const std::string& hotword_name = hotwords[k].name;
    const std::string where =
        reporter + ": model file \"" + name + "\", hotword " + std::to_string(k + 1) + ": ";
    if (named && !IsStorableHotwordName(hotword_name)) {
      KESTREL_ERR(kLogFile) << where << "name \"" << hotword_name.substr(0, 40) << "\" cannot "
                            << "be stored; a name is not empty, has no control characters, no "
                            << "'_' and no space at either end.";
    }
    if (!named && !hotword_name.empty()) {
      KESTREL_ERR(kLogFile) << where << "named \"" << hotword_name.substr(0, 40) << "\" while "
                            << "hotword 1 has no name; name every hotword or none.";
    }
  }
}

void HotwordModel::Check(const std::string& reporter) const {
  for (size_t k = 0; k < hotwords.size(); ++k) CheckHotword(k, reporter);
  CheckNetwork(reporter);
  CheckNames(reporter);
}

void HotwordModel::CheckHotword(size_t k, const std::string& reporter) const {
  const HotwordRecord& record = hotwords[k];
  const size_t num_units = record.keyword.size();
  // Named as a reader counts them: from 1, in file order.
  const std::string where =
      reporter + ": model file \"" + name + "\", hotword " + std::to_string(k + 1) + ": ";
  if (record.search_floor.size() < num_units) {
    KESTREL_ERR(kLogFile) << where << "<SearchFloor> has " << record.search_floor.size()
                          << " values, expected one for each of the " << num_units
                          << " units of <Kw>.";
  }
  // Every search but the naive one needs at least one state. The mask is
  // taken as stored: DTW reads every unit boundary, the span-based searches
  // only the last entry, the naive and piecewise searches none.
  const int32 method = record.search_method;
  if (method != kNaiveSearch && method > 0 && method <= kViterbiTracebackLogSearch) {
    if (num_units == 0) {
      KESTREL_ERR(kLogFile) << where << "<Kw> is empty; only search method " << kNaiveSearch
                            << " accepts an empty keyword, got method " << method << ".";
    }
    if (method == kDtwSearch && record.search_mask.size() < num_units + 1) {
      KESTREL_ERR(kLogFile) << where << "<SearchMask> has " << record.search_mask.size()
                            << " entries; the DTW search (method " << kDtwSearch << ") needs "
                            << num_units + 1 << ", one per unit boundary of <Kw>.";
    }
    if (method != kDtwSearch && method != kPiecewiseSearch && record.search_mask.empty()) {
      KESTREL_ERR(kLogFile) << where << "<SearchMask> is empty; search method " << method
                            << " (" << SearchMethodName(method) << ") needs its last entry "
                            << "as the span it searches.";
    }
  }
}

void HotwordModel::CheckNetwork(const std::string& reporter) const {
  const int num_outputs = nnet.OutputDim();
  if (num_outputs < 1 || num_outputs > kMaxNetworkOutputs) {
    KESTREL_ERR(kLogFile) << reporter << ": model file \"" << name << "\": the network has "
                          << num_outputs << " outputs, expected 1 to " << kMaxNetworkOutputs
                          << ".";
  }
  for (size_t k = 0; k < hotwords.size(); ++k) {
    for (int32 unit : hotwords[k].keyword) {
      if (unit < 0 || unit >= num_outputs) {
        KESTREL_ERR(kLogFile) << reporter << ": model file \"" << name << "\", hotword "
                              << k + 1 << ": <Kw> unit " << unit << " is not an output of "
                              << "the network, expected 0 to " << num_outputs - 1 << ".";
      }
    }
  }
}

void HotwordModel::Write(std::ostream& os, bool binary) const {
  CheckNames("HotwordModel");
  if (binary) os.write("\0B", 2);
  WriteBody(binary, &os);
}

void HotwordModel::WriteFile(const std::string& path, bool binary) const {
  CheckNames("HotwordModel");
  Output output(path, binary);
  WriteBody(binary, output.Stream());
  output.Close();
}

void HotwordModel::WriteBody(bool binary, std::ostream* os) const {
  WriteToken(binary, "<UniversalModel>", os);
  WriteToken(binary, "<KwInfo>", os);
  WriteToken(binary, "<SmoothWindow>", os);
  WriteBasicType(binary, smooth_window, os);
  WriteToken(binary, "<SlideWindow>", os);
  WriteBasicType(binary, slide_window, os);
  WriteToken(binary, "<NumKws>", os);
  WriteBasicType(binary, static_cast<int32>(hotwords.size()), os);
  if (!binary) *os << "\n";
  for (const HotwordRecord& record : hotwords) WriteRecord(binary, record, os);
  WriteToken(binary, "</KwInfo>", os);
  if (!binary) *os << "\n";
  nnet.Write(binary, os);
  WriteNames(binary, os);
}

}  // namespace kestrel
