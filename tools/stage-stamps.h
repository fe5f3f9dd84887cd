// StageStamps: which stages of a long, resumable job have finished, kept as
// stamp files in the job's work directory so that a stopped run (Ctrl-C, a
// crash, a reboot) resumes from the first unfinished stage.
//
// A stage's stamp holds the key of what the stage was run on (a phrase, a
// corpus size, the previous stage's key...) and how long it took. A stage
// counts as done only when its stamp exists and holds the same key, and the
// stamp is written (atomically, by rename) only after everything the stage
// made is in place; so nothing half-written is ever taken as done, and
// changed inputs redo the stage. Giving each stage the previous stage's key
// as part of its own makes a redone stage redo all that follows it.
//
// Ownership: the directory's files belong to the caller's job. One thread.
#ifndef KESTREL_TOOLS_STAGE_STAMPS_H_
#define KESTREL_TOOLS_STAGE_STAMPS_H_

#include <string>

namespace kestrel {

class StageStamps {
 public:
  // Creates `dir` if needed; throws KestrelError when it cannot.
  explicit StageStamps(const std::string& dir);

  // True when `stage` finished with this `key`; then *seconds (if given) is
  // the time it took.
  bool Done(const std::string& stage, const std::string& key, double* seconds = nullptr) const;
  // Records that `stage` finished with `key` after `seconds`.
  void MarkDone(const std::string& stage, const std::string& key, double seconds) const;
  // Removes `stage`'s stamp (before the stage starts over).
  void Forget(const std::string& stage) const;

  // The work directory, and a path inside it.
  const std::string& Dir() const { return dir_; }
  std::string Path(const std::string& name) const;

 private:
  std::string StampPath(const std::string& stage) const;

  std::string dir_;
};

}  // namespace kestrel

#endif  // KESTREL_TOOLS_STAGE_STAMPS_H_
