#include "stage-stamps.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "utils/kestrel-log.h"

namespace kestrel {

namespace fs = std::filesystem;

StageStamps::StageStamps(const std::string& dir) : dir_(dir) {
  std::error_code error;
  fs::create_directories(dir_, error);
  if (error || !fs::is_directory(dir_)) {
    KESTREL_ERR("stage-stamps") << dir_ << ": cannot create the work directory"
                                << (error ? ": " + error.message() : std::string()) << ".";
  }
}

std::string StageStamps::Path(const std::string& name) const {
  return (fs::path(dir_) / name).string();
}

std::string StageStamps::StampPath(const std::string& stage) const {
  return Path(stage + ".done");
}

bool StageStamps::Done(const std::string& stage, const std::string& key,
                       double* seconds) const {
  std::ifstream in(StampPath(stage));
  std::string stored_key;
  double stored_seconds = 0.0;
  if (!std::getline(in, stored_key) || !(in >> stored_seconds) || stored_key != key) return false;
  if (seconds != nullptr) *seconds = stored_seconds;
  return true;
}

void StageStamps::MarkDone(const std::string& stage, const std::string& key,
                           double seconds) const {
  const std::string path = StampPath(stage);
  const std::string temporary = path + ".tmp";
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << key << "\n" << seconds << "\n";
    out.close();
    if (!out) KESTREL_ERR("stage-stamps") << temporary << ": cannot write the stage stamp.";
  }
  std::error_code error;
  fs::rename(temporary, path, error);
  if (error) {
    KESTREL_ERR("stage-stamps") << path << ": cannot write the stage stamp: " << error.message()
                                << ".";
  }
}

void StageStamps::Forget(const std::string& stage) const {
  std::error_code ignored;
  fs::remove(StampPath(stage), ignored);
}

}  // namespace kestrel
