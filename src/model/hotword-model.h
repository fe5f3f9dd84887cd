// HotwordModel: one universal model file (".kmodel") as a value: the settings
// of each hotword and the network that scores them. It is the only reader and
// writer of the format; the detector stage, the facade and the tools all load
// and save models through it.
//
//   HotwordModel model = HotwordModel::ReadFile("hey-kestrel.kmodel");
//   model.hotwords[0].sensitivity = 0.6f;
//   model.WriteFile("tuned.kmodel", /*binary=*/true);
//
// A file holds, binary or text:
//   <UniversalModel> <KwInfo> <SmoothWindow> int <SlideWindow> int <NumKws> n
//   n records: <Kw> [ units ] <Sensitivity> float
//              [<SearchMethod> int <SearchNeighbour> int <SearchMask> [ ints ]
//               <SearchFloor> float-vector]   (search group)
//              [<SearchMax> bool] [<NumPieces> int]
//              [<DurationPass> int <FloorPass> int]
//   </KwInfo> network
//   [<HotwordNames> n name ... </HotwordNames>]   (names, one per hotword)
// Optional groups are told apart by the first letter of their first token.
// The names block follows the network, so readers that stop after the
// network load such files unchanged; a name is written as one token, its
// spaces as '_' (names therefore hold no '_').
// Reading fills what a file leaves out (see HotwordRecord) and refuses what
// would make the detector read outside its buffers (see Check); writing
// always writes every group, so a written file reads back to the same value.
//
// Ownership: a plain value; it owns its records and network, copies are deep
// and independent. Threads: none; separate objects may be used in parallel,
// one object by one thread at a time (const members by any number at once).
// Errors are KestrelError exceptions naming the file (or the name given for
// a buffer) and, where it applies, the hotword (counted from 1) and the
// field; the token reader's own messages ("Expected token ...") are kept as
// they are.
#ifndef KESTREL_MODEL_HOTWORD_MODEL_H_
#define KESTREL_MODEL_HOTWORD_MODEL_H_

#include <cstddef>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "nnet/nnet.h"
#include "utils/kestrel-types.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

// The search methods a hotword record can name.
enum SearchMethodCode : int32 {
  kNaiveSearch = 1,
  kDtwSearch = 2,
  kViterbiSearch = 3,
  kPiecewiseSearch = 4,
  kViterbiReduplicationSearch = 5,
  kViterbiSoftFloorSearch = 6,
  kViterbiTracebackSearch = 7,
  kViterbiTracebackLogSearch = 8,
};

// "naive", "DTW", "Viterbi", ... as people name them; "unknown" outside 1 to 8.
const char* SearchMethodName(int32 method);

// One hotword of a model, with the values a file's absent groups stand for.
struct HotwordRecord {
  // Network output columns, in spoken order.
  std::vector<int32> keyword;
  // Detection needs a score of at least 1 - sensitivity.
  float sensitivity = 0.0f;
  // Search group; absent in a file: the naive search, no neighbour, a mask
  // spread evenly over the slide window (EvenSearchMask) and a floor of 0.05
  // per unit.
  int32 search_method = kNaiveSearch;
  int32 search_neighbour = 0;
  // Frame offsets of the unit boundaries, of any length: DTW reads entries 0
  // to units; the span-based searches read only the last entry, the span.
  std::vector<int32> search_mask;
  // One floor per keyword unit (a file's longer list is cut to the keyword).
  std::vector<float> search_floor;
  bool search_max = false;
  int32 num_pieces = 1;
  int32 duration_pass = 0;
  int32 floor_pass = 0;
  // What people say to wake it ("hey computer"); empty when the file names
  // no hotwords. A model names all its hotwords or none.
  std::string name;
};

class HotwordModel {
 public:
  // Posterior smoothing and search window lengths, in network-output frames.
  int32 smooth_window = 0;
  int32 slide_window = 0;
  std::vector<HotwordRecord> hotwords;
  Nnet nnet;
  // Where the model came from (file name, or the name given with a buffer),
  // for messages; never written.
  std::string name;

  // Reads a whole file, binary (recognised by its "\0B" marker) or text.
  // `reporter` leads every message of the model checks; the detector stage
  // passes its own name so that its messages name it.
  static HotwordModel ReadFile(const std::string& path,
                               const std::string& reporter = "HotwordModel");
  // Reads a model from `size` bytes at `data` (the bytes of a file; the
  // buffer is not kept). `name` stands for the file name in messages.
  static HotwordModel ReadMemory(const void* data, size_t size, const std::string& name,
                                 const std::string& reporter = "HotwordModel");
  // Reads a model from `is`, binary if it starts with the "\0B" marker.
  static HotwordModel Read(std::istream& is, const std::string& name,
                           const std::string& reporter = "HotwordModel");

  // Writes the whole model, a binary one starting with its "\0B" marker:
  // the bytes of a file that ReadFile reads back to an equal model.
  void Write(std::ostream& os, bool binary) const;
  void WriteFile(const std::string& path, bool binary) const;

  // Errors unless the detector can run this model: a network with 1 to 65536
  // outputs; for each hotword, keyword units that are network outputs, a
  // floor per unit, for search methods 2 to 8 a non-empty keyword, and a mask
  // with every entry its search reads: units + 1 for DTW, at least one (the
  // span) for the other searches but the naive and piecewise ones, which
  // read none. Reading checks as it goes; call it on a model built or edited
  // in code.
  void Check(const std::string& reporter = "HotwordModel") const;

  // Unit boundaries spread evenly over `slide_window` frames: 0, ..., slide_window
  // (truncated), num_units + 1 entries.
  static std::vector<int32> EvenSearchMask(size_t num_units, int32 slide_window);

  // Whether a model file can hold `name`: not empty, no control characters,
  // no '_', no space at either end.
  static bool IsStorableHotwordName(const std::string& name);

 private:
  // The part of the file after the binary marker.
  void ReadBody(bool binary, std::istream* is, const std::string& reporter);
  void WriteBody(bool binary, std::ostream* os) const;
  // The checks of one hotword (k from 0), and of the network and units.
  void CheckHotword(size_t k, const std::string& reporter) const;
  void CheckNetwork(const std::string& reporter) const;
  void CheckNames(const std::string& reporter) const;
  // The optional block after the network.
  void ReadNames(bool binary, std::istream* is, const std::string& reporter);
  void WriteNames(bool binary, std::ostream* os) const;
};

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_MODEL_HOTWORD_MODEL_H_
