#include "det-evaluation.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <map>
#include <set>
#include <sstream>

#include "hotword-units.h"

namespace kestrel {

OperatingPoint CountOperatingPoint(const std::vector<CorpusClip>& clips,
                                   const std::vector<std::vector<int>>& detections,
                                   double tolerance_seconds) {
  OperatingPoint point;
  for (size_t i = 0; i < clips.size(); ++i) {
    const CorpusClip& clip = clips[i];
    if (clip.kind == ClipKind::kConfusable) {
      ++point.confusables;
      if (!detections[i].empty()) ++point.confusables_accepted;
      continue;
    }
    const bool positive = clip.kind == ClipKind::kPositive;
    bool hit = false;
    std::vector<bool> accepted(clip.confusable_spans.size(), false);
    for (int frame : detections[i]) {
      double t = frame * kFrameShiftSeconds + kFrameCentreSeconds;
      if (positive && t >= clip.hotword_start && t <= clip.hotword_end + tolerance_seconds) {
        hit = true;
        continue;
      }
      bool in_confusable = false;
      for (size_t s = 0; s < clip.confusable_spans.size(); ++s) {
        const auto& span = clip.confusable_spans[s];
        if (t >= span.first && t <= span.second + tolerance_seconds) {
          accepted[s] = true;
          in_confusable = true;
        }
      }
      if (!in_confusable) ++point.false_alarms;
    }
    double outside = clip.duration;
    if (positive) {
      ++point.positives;
      if (hit) ++point.detected;
      outside -= clip.hotword_end - clip.hotword_start;
    }
    for (size_t s = 0; s < clip.confusable_spans.size(); ++s) {
      ++point.confusables;
      point.confusables_accepted += accepted[s];
      outside -= clip.confusable_spans[s].second - clip.confusable_spans[s].first;
    }
    point.hours += std::max(0.0, outside) / 3600.0;
  }
  return point;
}

double FrrAtFalseAlarmRate(const std::vector<OperatingPoint>& curve,
                           double max_false_alarms_per_hour) {
  double best = 1.0;
  for (const OperatingPoint& p : curve) {
    if (p.FalseAlarmsPerHour() <= max_false_alarms_per_hour) best = std::min(best, p.FalseRejectionRate());
  }
  return best;
}

const OperatingPoint* MostSensitiveWithin(const std::vector<OperatingPoint>& curve,
                                          double max_false_alarms_per_hour) {
  const OperatingPoint* best = nullptr;
  for (const OperatingPoint& p : curve) {
    if (p.FalseAlarmsPerHour() <= max_false_alarms_per_hour &&
        (best == nullptr || p.sensitivity > best->sensitivity)) {
      best = &p;
    }
  }
  return best;
}

std::string OperatingPointTable(const NamedCurve& curve) {
  std::ostringstream os;
  os << std::fixed;
  os << "| sensitivity | detected | FRR | false alarms | FA/h | confusables accepted |\n"
     << "|---|---|---|---|---|---|\n";
  for (const OperatingPoint& p : curve.points) {
    os << "| " << std::setprecision(3) << p.sensitivity << " | " << p.detected << "/" << p.positives
       << " | " << std::setprecision(1) << 100.0 * p.FalseRejectionRate() << "% | "
       << p.false_alarms << " | " << std::setprecision(2) << p.FalseAlarmsPerHour() << " | "
       << p.confusables_accepted << "/" << p.confusables << " |\n";
  }
  return os.str();
}

std::string ComparisonTable(const std::vector<NamedCurve>& curves,
                            const std::vector<double>& false_alarm_rates) {
  std::ostringstream os;
  os << "| search |";
  for (double r : false_alarm_rates) os << " FRR at " << r << " FA/h |";
  os << "\n|---|";
  for (size_t i = 0; i < false_alarm_rates.size(); ++i) os << "---|";
  os << "\n" << std::fixed << std::setprecision(1);
  for (const NamedCurve& c : curves) {
    os << "| " << c.name << " |";
    for (double r : false_alarm_rates) os << " " << 100.0 * FrrAtFalseAlarmRate(c.points, r) << "% |";
    os << "\n";
  }
  return os.str();
}

bool WriteDetPlot(const std::vector<NamedCurve>& curves, const std::string& png_path,
                  std::string* error) {
  std::filesystem::path png(png_path);
  std::string data_path = std::filesystem::path(png).replace_extension(".dat").string();
  std::string script_path = std::filesystem::path(png).replace_extension(".gp").string();
  {
    std::ofstream data(data_path);
    // One gnuplot data block per curve, points in order of false alarm rate.
    for (const NamedCurve& c : curves) {
      data << "# " << c.name << "\n";
      std::vector<OperatingPoint> points = c.points;
      std::sort(points.begin(), points.end(), [](const OperatingPoint& a, const OperatingPoint& b) {
        return a.FalseAlarmsPerHour() < b.FalseAlarmsPerHour() ||
               (a.FalseAlarmsPerHour() == b.FalseAlarmsPerHour() &&
                a.FalseRejectionRate() > b.FalseRejectionRate());
      });
      for (const OperatingPoint& p : points) {
        data << p.FalseAlarmsPerHour() << " " << 100.0 * p.FalseRejectionRate() << "\n";
      }
      data << "\n\n";
    }
    std::ofstream script(script_path);
    script << "set terminal pngcairo size 800,560 font ',11'\n"
           << "set output '" << png.string() << "'\n"
           << "set title 'Hotword detection: false rejections against false alarms'\n"
           << "set xlabel 'false alarms per hour'\n"
           << "set ylabel 'false rejection rate (%)'\n"
           << "set xrange [0:2]\nset yrange [0:*]\nset grid\nset key top right\n"
           << "plot ";
    for (size_t i = 0; i < curves.size(); ++i) {
      script << (i > 0 ? ", " : "") << "'" << data_path << "' index " << i
             << " with linespoints title '" << curves[i].name << "'";
    }
    script << "\n";
    if (!data || !script) {
      *error = "cannot write " + data_path + " or " + script_path;
      return false;
    }
  }
  std::string command = "gnuplot '" + script_path + "' 2>&1";
  int status = std::system(command.c_str());
  if (status != 0) {
    *error = "gnuplot failed or is not installed (run: apt-get install gnuplot-nox); "
             "the data and script are in " + data_path + " and " + script_path;
    return false;
  }
  return true;
}

std::string FrrByGroupTable(const std::vector<CorpusClip>& clips,
                            const std::vector<std::vector<int>>& detections, double tolerance,
                            const std::string& title,
                            const std::function<std::string(const CorpusClip&)>& group_of) {
  std::map<std::string, std::pair<std::vector<CorpusClip>, std::vector<std::vector<int>>>> groups;
  for (size_t i = 0; i < clips.size(); ++i) {
    if (clips[i].kind != ClipKind::kPositive) continue;
    const std::string name = group_of(clips[i]);
    if (name.empty()) continue;
    groups[name].first.push_back(clips[i]);
    groups[name].second.push_back(detections[i]);
  }
  std::ostringstream out;
  out.setf(std::ios::fixed);
  out.precision(1);
  out << "| " << title << " | detected | FRR |\n|---|---|---|\n";
  for (const auto& [name, group] : groups) {
    OperatingPoint p = CountOperatingPoint(group.first, group.second, tolerance);
    out << "| " << name << " | " << p.detected << "/" << p.positives << " | "
        << 100.0 * p.FalseRejectionRate() << "% |\n";
  }
  return out.str();
}

std::string FrrByVoiceTable(const std::vector<CorpusClip>& clips,
                            const std::vector<std::vector<int>>& detections, double tolerance) {
  std::map<std::string, std::set<std::string>> voices_of;
  for (const CorpusClip& c : clips) {
    if (c.kind == ClipKind::kPositive) voices_of[c.engine].insert(c.voice);
  }
  return FrrByGroupTable(clips, detections, tolerance, "voice", [&](const CorpusClip& c) {
    return voices_of[c.engine].size() <= 8 ? c.engine + " " + c.voice : c.engine + " (all voices)";
  });
}

std::string NearPhraseTable(const std::vector<CorpusClip>& clips,
                            const std::vector<std::vector<int>>& detections, double tolerance) {
  std::map<std::string, std::pair<int, int>> said;  // text -> (accepted, said)
  for (size_t i = 0; i < clips.size(); ++i) {
    const CorpusClip& c = clips[i];
    if (c.kind == ClipKind::kConfusable) {
      said[c.text].first += !detections[i].empty();
      ++said[c.text].second;
    }
    for (size_t s = 0; s < c.confusable_spans.size(); ++s) {
      bool accepted = false;
      for (int frame : detections[i]) {
        double t = frame * kFrameShiftSeconds + kFrameCentreSeconds;
        accepted |= t >= c.confusable_spans[s].first && t <= c.confusable_spans[s].second + tolerance;
      }
      const std::string& text = s < c.confusable_texts.size() ? c.confusable_texts[s] : std::string();
      said[text].first += accepted;
      ++said[text].second;
    }
  }
  std::vector<std::pair<std::string, std::pair<int, int>>> rows(said.begin(), said.end());
  std::stable_sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) {
    return a.second.first * b.second.second > b.second.first * a.second.second;
  });
  std::ostringstream out;
  out.setf(std::ios::fixed);
  out.precision(1);
  out << "| near phrase | accepted | rate |\n|---|---|---|\n";
  int accepted = 0, total = 0;
  for (const auto& [text, counts] : rows) {
    out << "| " << text << " | " << counts.first << "/" << counts.second << " | "
        << 100.0 * counts.first / counts.second << "% |\n";
    accepted += counts.first;
    total += counts.second;
  }
  out << "| all | " << accepted << "/" << total << " | "
      << (total > 0 ? 100.0 * accepted / total : 0.0) << "% |\n";
  return out.str();
}

}  // namespace kestrel
