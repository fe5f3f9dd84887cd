#include "wake-service.h"

#include <set>
#include <stdexcept>

#include "model/hotword-model.h"

namespace kestrel {
namespace {

constexpr char kVersion[] = "0.1";

// A hotword's name as Wyoming clients name it: "hey kestrel" -> "hey-kestrel".
std::string Identifier(std::string name) {
  for (char& c : name) {
    if (c == ' ') c = '-';
  }
  return name;
}

// What a person would say: "hey-kestrel" -> "hey kestrel".
std::string Phrase(std::string name) {
  for (char& c : name) {
    if (c == '-' || c == '_') c = ' ';
  }
  return name;
}

}  // namespace

WakeService::WakeService(const HotwordDetectorOptions& options) : options_(options) {
  // Checks the models, options and the names' count, and names the hotwords
  // the library's way when no names are given.
  const std::unique_ptr<HotwordDetector> detector = NewDetector();
  std::vector<std::string>& names = options_.hotword_names;
  if (names.empty()) {
    for (int k = 1; k <= detector->NumHotwords(); ++k) {
      names.push_back(Identifier(detector->HotwordName(k)));
    }
  }
  std::set<std::string> seen;
  for (const std::string& name : names) {
    if (name.empty()) throw std::runtime_error("a hotword name is empty");
    if (!seen.insert(name).second) {
      throw std::runtime_error("hotword name \"" + name + "\" is given twice");
    }
  }

  const nlohmann::json attribution = {{"name", "Kestrel"}, {"url", ""}};
  nlohmann::json models = nlohmann::json::array();
  for (const std::string& name : names) {
    models.push_back({{"name", name},
                      {"phrase", Phrase(name)},
                      {"languages", nlohmann::json::array({"en"})},
                      {"attribution", attribution},
                      {"installed", true},
                      {"description", "hotword \"" + Phrase(name) + "\""},
                      {"version", kVersion}});
  }
  info_.type = "info";
  const nlohmann::json program = {{"name", "kestrel"},
                                  {"attribution", attribution},
                                  {"installed", true},
                                  {"description", "Kestrel on-device hotword detection"},
                                  {"version", kVersion},
                                  {"models", models}};
  info_.data = {{"wake", nlohmann::json::array({program})}};
}

std::unique_ptr<HotwordDetector> WakeService::NewDetector(int sample_rate) const {
  HotwordDetectorOptions options = options_;
  options.sample_rate = sample_rate;
  return std::make_unique<HotwordDetector>(options);
}

}  // namespace kestrel
