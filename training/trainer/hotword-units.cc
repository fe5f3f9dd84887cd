#include "hotword-units.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

#include "utils/kestrel-log.h"

namespace kestrel {
namespace {

std::vector<std::string> Symbols(const CorpusClip& clip) {
  std::vector<std::string> out;
  for (const PhoneSpan& p : clip.phones) out.push_back(p.symbol);
  return out;
}

// Splits durations d[0..n) into `k` contiguous groups minimising the sum of
// squared differences between each group's total and the mean group total.
// Returns the group (from 1) of each element.
std::vector<int> EvenGroups(const std::vector<double>& d, int k) {
  const int n = static_cast<int>(d.size());
  std::vector<double> prefix(n + 1, 0.0);
  for (int i = 0; i < n; ++i) prefix[i + 1] = prefix[i] + d[i];
  const double target = prefix[n] / k;
  const double inf = std::numeric_limits<double>::infinity();
  // cost[g][i]: best cost of putting the first i elements in g groups.
  std::vector<std::vector<double>> cost(k + 1, std::vector<double>(n + 1, inf));
  std::vector<std::vector<int>> cut(k + 1, std::vector<int>(n + 1, 0));
  cost[0][0] = 0.0;
  for (int g = 1; g <= k; ++g) {
    for (int i = g; i <= n; ++i) {
      for (int j = g - 1; j < i; ++j) {
        if (cost[g - 1][j] == inf) continue;
        double dev = prefix[i] - prefix[j] - target;
        double c = cost[g - 1][j] + dev * dev;
        if (c < cost[g][i]) {
          cost[g][i] = c;
          cut[g][i] = j;
        }
      }
    }
  }
  std::vector<int> group(n);
  for (int g = k, i = n; g >= 1; --g) {
    int j = cut[g][i];
    for (int e = j; e < i; ++e) group[e] = g;
    i = j;
  }
  return group;
}

}  // namespace

std::string HotwordUnits::Describe() const {
  std::string out;
  for (size_t i = 0; i < phones.size(); ++i) {
    if (i > 0) out += (unit_of_phone[i] != unit_of_phone[i - 1]) ? " | " : " ";
    out += phones[i];
  }
  return out;
}

std::vector<int> AlignToCanonical(const std::vector<std::string>& phones,
                                  const std::vector<std::string>& canonical) {
  const size_t n = phones.size(), m = canonical.size();
  // Edit distance; ties prefer substitution, then insertion of a clip phoneme.
  std::vector<std::vector<int>> dist(n + 1, std::vector<int>(m + 1, 0));
  for (size_t i = 0; i <= n; ++i) dist[i][0] = static_cast<int>(i);
  for (size_t j = 0; j <= m; ++j) dist[0][j] = static_cast<int>(j);
  for (size_t i = 1; i <= n; ++i) {
    for (size_t j = 1; j <= m; ++j) {
      int sub = dist[i - 1][j - 1] + (phones[i - 1] == canonical[j - 1] ? 0 : 1);
      dist[i][j] = std::min({sub, dist[i - 1][j] + 1, dist[i][j - 1] + 1});
    }
  }
  std::vector<int> index(n, -1);
  size_t i = n, j = m;
  while (i > 0) {
    if (j > 0 && dist[i][j] == dist[i - 1][j - 1] + (phones[i - 1] == canonical[j - 1] ? 0 : 1)) {
      index[i - 1] = static_cast<int>(j - 1);
      --i;
      --j;
    } else if (j == 0 || dist[i][j] == dist[i - 1][j] + 1) {
      --i;  // inserted: filled in below
    } else {
      --j;  // a canonical phoneme the clip does not have
    }
  }
  // Inserted phonemes belong with the phoneme before them (the first
  // matched one when they lead).
  int previous = -1;
  for (size_t k = 0; k < n; ++k) {
    if (index[k] >= 0) {
      previous = index[k];
    } else if (previous >= 0) {
      index[k] = previous;
    }
  }
  int next = 0;
  for (size_t k = n; k-- > 0;) {
    if (index[k] >= 0) next = index[k];
    else index[k] = next;
  }
  return index;
}

HotwordUnits ChooseUnits(const std::vector<CorpusClip>& clips, int num_units) {
  std::map<std::vector<std::string>, int> counts;
  for (const CorpusClip& c : clips) {
    if (c.kind == ClipKind::kPositive) ++counts[Symbols(c)];
  }
  if (counts.empty()) {
    KESTREL_ERR("hotword-units") << "cannot choose hotword units: the training set has no "
                                 << "positive clips (kind \"positive\" with phoneme timings)";
  }
  HotwordUnits units;
  int best = 0;
  for (const auto& [seq, count] : counts) {
    if (count > best) {
      best = count;
      units.phones = seq;
    }
  }
  // Mean duration of each canonical phoneme over all positives, through the
  // alignment, so that clips of other pronunciations count too.
  const size_t m = units.phones.size();
  std::vector<double> seconds(m, 0.0);
  int num_positives = 0;
  for (const CorpusClip& c : clips) {
    if (c.kind != ClipKind::kPositive) continue;
    ++num_positives;
    std::vector<int> index = AlignToCanonical(Symbols(c), units.phones);
    for (size_t k = 0; k < c.phones.size(); ++k) {
      seconds[index[k]] += c.phones[k].end - c.phones[k].start;
    }
  }
  for (double& s : seconds) s /= num_positives;
  int k = std::max(1, std::min(num_units, static_cast<int>(m)));
  units.unit_of_phone = EvenGroups(seconds, k);
  units.unit_seconds.assign(k, 0.0);
  for (size_t p = 0; p < m; ++p) units.unit_seconds[units.unit_of_phone[p] - 1] += seconds[p];
  return units;
}

std::vector<int> FrameLabels(const CorpusClip& clip, const HotwordUnits& units, int num_frames,
                             int edge_frames, int contrast_frames) {
  std::vector<int> labels(std::max(0, num_frames), 0);
  // Labels the frames whose centre lies in [start, end).
  auto fill_into = [&](std::vector<int>* out, double start, double end, int label) {
    int first = static_cast<int>(std::ceil((start - kFrameCentreSeconds) / kFrameShiftSeconds - 1e-9));
    int last = static_cast<int>(std::ceil((end - kFrameCentreSeconds) / kFrameShiftSeconds - 1e-9)) - 1;
    for (int t = std::max(first, 0); t <= std::min(last, num_frames - 1); ++t) (*out)[t] = label;
  };
  auto fill = [&](double start, double end, int label) { fill_into(&labels, start, end, label); };
  // A near phrase says some of the hotword's own sounds ("a kestrel", "hey
  // kettle"); labelled filler there, it would teach the network that those
  // sounds are not the hotword's units. Only where it sounds different is it
  // filler, which is what lets the search reject it.
  if (clip.kind == ClipKind::kConfusable) {
    if (clip.span_end <= clip.span_start) return std::vector<int>(std::max(0, num_frames), kUntrainedFrame);
    fill(clip.span_start, clip.span_end, kUntrainedFrame);
    for (const auto& [start, end] : clip.differs) fill(start, end, 0);
    if (contrast_frames <= 0) return labels;
    // The span's own edges are no meeting: the hotword too is said after and
    // before any speech.
    std::vector<int> in_span(labels.size(), 0);
    fill_into(&in_span, clip.span_start, clip.span_end, 1);
    std::vector<int> contrasted = labels;
    for (int t = 1; t < num_frames; ++t) {
      if (!in_span[t - 1] || !in_span[t] || labels[t - 1] == labels[t]) continue;
      const int end = std::min(num_frames, t + contrast_frames);
      for (int g = std::max(0, t - contrast_frames); g < end; ++g) {
        if (in_span[g]) contrasted[g] = kContrastFrame;
      }
    }
    return contrasted;
  }
  if (clip.kind != ClipKind::kPositive || units.phones.empty()) return labels;
  std::vector<int> index = AlignToCanonical(Symbols(clip), units.phones);
  for (size_t k = 0; k < clip.phones.size(); ++k) {
    const PhoneSpan& p = clip.phones[k];
    fill(p.start, p.end, units.unit_of_phone[index[k]]);
  }
  if (edge_frames <= 0) return labels;
  std::vector<int> guarded = labels;
  for (int t = 1; t < num_frames; ++t) {
    if (labels[t] == labels[t - 1]) continue;
    for (int g = std::max(0, t - edge_frames); g < std::min(num_frames, t + edge_frames); ++g) {
      guarded[g] = kUntrainedFrame;
    }
  }
  return guarded;
}

}  // namespace kestrel
