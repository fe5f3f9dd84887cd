#include "hotword-model-file.h"

#include <algorithm>
#include <cmath>

#include "utils/kestrel-io.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-matrix.h"

namespace kestrel {

void WriteHotwordModelFile(const std::string& path, const HotwordModelSettings& settings,
                           const Nnet& nnet, bool binary) {
  Output out(path, binary);
  std::ostream* os = out.Stream();
  WriteToken(binary, "<UniversalModel>", os);
  WriteToken(binary, "<KwInfo>", os);
  WriteToken(binary, "<SmoothWindow>", os);
  WriteBasicType<int32>(binary, settings.smooth_window, os);
  WriteToken(binary, "<SlideWindow>", os);
  WriteBasicType<int32>(binary, settings.slide_window, os);
  WriteToken(binary, "<NumKws>", os);
  WriteBasicType<int32>(binary, static_cast<int32>(settings.hotwords.size()), os);
  for (const HotwordSettings& hw : settings.hotwords) {
    WriteToken(binary, "<Kw>", os);
    WriteIntegerVector<int32>(binary, hw.keyword, os);
    WriteToken(binary, "<Sensitivity>", os);
    WriteBasicType<float>(binary, hw.sensitivity, os);
    WriteToken(binary, "<SearchMethod>", os);
    WriteBasicType<int32>(binary, hw.search_method, os);
    WriteToken(binary, "<SearchNeighbour>", os);
    WriteBasicType<int32>(binary, hw.search_neighbour, os);
    WriteToken(binary, "<SearchMask>", os);
    WriteIntegerVector<int32>(binary, hw.search_mask, os);
    WriteToken(binary, "<SearchFloor>", os);
    Vector floor(static_cast<int>(hw.search_floor.size()));
    for (size_t i = 0; i < hw.search_floor.size(); ++i) floor(static_cast<int>(i)) = hw.search_floor[i];
    floor.Write(binary, os);
    WriteToken(binary, "<SearchMax>", os);
    WriteBasicType<bool>(binary, hw.search_max, os);
    WriteToken(binary, "<NumPieces>", os);
    WriteBasicType<int32>(binary, hw.num_pieces, os);
    WriteToken(binary, "<DurationPass>", os);
    WriteBasicType<int32>(binary, hw.duration_pass, os);
    WriteToken(binary, "<FloorPass>", os);
    WriteBasicType<int32>(binary, hw.floor_pass, os);
  }
  WriteToken(binary, "</KwInfo>", os);
  nnet.Write(binary, os);
  out.Close();
}

void ReadHotwordModelFile(const std::string& path, HotwordModelSettings* settings, Nnet* nnet) {
  Input in(path);
  const bool binary = in.Binary();
  std::istream* is = in.Stream();
  try {
    ExpectToken(binary, "<UniversalModel>", is);
    ExpectToken(binary, "<KwInfo>", is);
    ExpectToken(binary, "<SmoothWindow>", is);
    ReadBasicType<int32>(binary, &settings->smooth_window, is);
    ExpectToken(binary, "<SlideWindow>", is);
    ReadBasicType<int32>(binary, &settings->slide_window, is);
    ExpectToken(binary, "<NumKws>", is);
    int32 n = 0;
    ReadBasicType<int32>(binary, &n, is);
    settings->hotwords.assign(std::max(0, n), HotwordSettings());
    for (HotwordSettings& hw : settings->hotwords) {
      ExpectToken(binary, "<Kw>", is);
      ReadIntegerVector<int32>(binary, &hw.keyword, is);
      ExpectToken(binary, "<Sensitivity>", is);
      ReadBasicType<float>(binary, &hw.sensitivity, is);
      const size_t units = hw.keyword.size();
      hw.search_method = 1;
      hw.search_floor.assign(units, 0.05f);
      if (PeekToken(binary, is) == 'S') {
        ExpectToken(binary, "<SearchMethod>", is);
        ReadBasicType<int32>(binary, &hw.search_method, is);
        ExpectToken(binary, "<SearchNeighbour>", is);
        ReadBasicType<int32>(binary, &hw.search_neighbour, is);
        ExpectToken(binary, "<SearchMask>", is);
        ReadIntegerVector<int32>(binary, &hw.search_mask, is);
        ExpectToken(binary, "<SearchFloor>", is);
        Vector floor;
        floor.Read(binary, is);
        for (size_t i = 0; i < units && static_cast<int>(i) < floor.Dim(); ++i) {
          hw.search_floor[i] = floor(static_cast<int>(i));
        }
      } else {
        hw.search_mask.clear();
        for (size_t i = 0; i <= units; ++i) {
          hw.search_mask.push_back(units == 0 ? 0 : static_cast<int32>(
              static_cast<float>(i) / units * settings->slide_window));
        }
      }
      if (PeekToken(binary, is) == 'S') {
        ExpectToken(binary, "<SearchMax>", is);
        ReadBasicType<bool>(binary, &hw.search_max, is);
      }
      if (PeekToken(binary, is) == 'N') {
        ExpectToken(binary, "<NumPieces>", is);
        ReadBasicType<int32>(binary, &hw.num_pieces, is);
      }
      if (PeekToken(binary, is) == 'D') {
        ExpectToken(binary, "<DurationPass>", is);
        ReadBasicType<int32>(binary, &hw.duration_pass, is);
        ExpectToken(binary, "<FloorPass>", is);
        ReadBasicType<int32>(binary, &hw.floor_pass, is);
      }
    }
    ExpectToken(binary, "</KwInfo>", is);
    nnet->Read(binary, is);
  } catch (const KestrelError& e) {
    KESTREL_ERR("hotword-model-file") << path << ": " << e.what();
  }
}

std::vector<int32> MaskFromDurations(const std::vector<double>& unit_seconds, int32 span) {
  double total = 0.0;
  for (double s : unit_seconds) total += s;
  std::vector<int32> mask{0};
  double sum = 0.0;
  for (double s : unit_seconds) {
    sum += s;
    mask.push_back(static_cast<int32>(std::lround(total > 0 ? sum / total * span : 0.0)));
  }
  mask.back() = span;
  return mask;
}

}  // namespace kestrel
