// ProgressBar: how far a long task has got, and the time left, on standard
// error. On a terminal it is one line redrawn in place; where standard error
// is a file or pipe it can instead print a plain line at every tenth, so that
// logs show progress too. Clear it before printing anything else to standard
// error. Used by one thread; the object only owns its label.
#ifndef KESTREL_TOOLS_PROGRESS_BAR_H_
#define KESTREL_TOOLS_PROGRESS_BAR_H_

#include <chrono>
#include <string>

namespace kestrel {

class ProgressBar {
 public:
  enum class Show {
    kNever,
    kOnTerminal,         // nothing where standard error is not a terminal
    kOnTerminalOrLines,  // elsewhere a line at every tenth from 10%
  };
  ProgressBar(const std::string& label, Show show);
  ~ProgressBar() { Clear(); }

  // `done` of `total` (> 0) units of work. The time left is extrapolated
  // from the time since construction, so construct it when the work starts.
  void Update(double done, double total);
  // Erases the bar from the terminal (a later Update draws it again).
  void Clear();

  // "label [#########...........] 45% 2:31 left", `width` marks wide; the
  // time left is left out below 1% and at 100%.
  static std::string Line(const std::string& label, double fraction, double seconds_left,
                          int width = 20);

  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

 private:
  std::string label_;
  Show show_;
  bool terminal_;
  std::chrono::steady_clock::time_point start_;
  bool drawn_ = false;
  int percent_ = -1;  // last shown (terminal) or last tenth printed (lines)
};

// "4:05", "1:02:03": a duration for people.
std::string FormatDuration(double seconds);

}  // namespace kestrel

#endif  // KESTREL_TOOLS_PROGRESS_BAR_H_
