#include "corpus-manifest.h"

#include <filesystem>
#include <fstream>

#include "json-value.h"
#include "utils/kestrel-log.h"

namespace kestrel {
namespace {

const char* TypeName(JsonValue::Type type) {
  switch (type) {
    case JsonValue::kNull: return "null";
    case JsonValue::kBool: return "a boolean";
    case JsonValue::kNumber: return "a number";
    case JsonValue::kString: return "a string";
    case JsonValue::kArray: return "an array";
    case JsonValue::kObject: return "an object";
  }
  return "?";
}

// Field access that reports exactly which field of which line is wrong.
class FieldReader {
 public:
  FieldReader(const JsonValue& object, const std::string& where)
      : object_(object), where_(where) {}

  const JsonValue& Get(const std::string& key, JsonValue::Type type) const {
    const JsonValue* v = object_.Find(key);
    if (v == nullptr) KESTREL_ERR("corpus-manifest") << where_ << ": missing field \"" << key << "\"";
    Check(*v, key, type);
    return *v;
  }

  std::string OptionalString(const std::string& key) const {
    const JsonValue* v = object_.Find(key);
    return (v != nullptr && v->IsString()) ? v->AsString() : std::string();
  }

  void Check(const JsonValue& v, const std::string& field, JsonValue::Type type) const {
    if (v.type() != type) {
      KESTREL_ERR("corpus-manifest") << where_ << ": field \"" << field << "\": expected "
                                     << TypeName(type) << ", found " << TypeName(v.type());
    }
  }

  const std::string& where() const { return where_; }

 private:
  const JsonValue& object_;
  const std::string& where_;
};

ClipKind ParseKind(const std::string& kind, const std::string& where) {
  if (kind == "positive") return ClipKind::kPositive;
  if (kind == "negative") return ClipKind::kNegative;
  if (kind == "confusable") return ClipKind::kConfusable;
  if (kind == "noise") return ClipKind::kNoise;
  KESTREL_ERR("corpus-manifest") << where << ": field \"kind\": expected one of positive, "
                                 << "negative, confusable, noise; found \"" << kind << "\"";
  return ClipKind::kNegative;
}

// [a, b, ...] of numbers, exactly `n` of them.
std::vector<double> Numbers(const FieldReader& f, const JsonValue& v, const std::string& field,
                            size_t first, size_t n) {
  f.Check(v, field, JsonValue::kArray);
  if (v.AsArray().size() != first + n) {
    KESTREL_ERR("corpus-manifest") << f.where() << ": field \"" << field << "\": expected "
                                   << first + n << " entries, found " << v.AsArray().size();
  }
  std::vector<double> out;
  for (size_t i = first; i < first + n; ++i) {
    f.Check(v.AsArray()[i], field, JsonValue::kNumber);
    out.push_back(v.AsArray()[i].AsNumber());
  }
  return out;
}

}  // namespace

CorpusClip ParseManifestLine(const std::string& line, const std::string& where,
                             const std::string& base_dir) {
  JsonValue object = ParseJson(line, where);
  if (!object.IsObject()) {
    KESTREL_ERR("corpus-manifest") << where << ": expected one JSON object per line, found "
                                   << TypeName(object.type());
  }
  FieldReader f(object, where);
  CorpusClip clip;
  std::filesystem::path wav(f.Get("wav", JsonValue::kString).AsString());
  clip.wav = (wav.is_absolute() || base_dir.empty()) ? wav.string()
                                                     : (std::filesystem::path(base_dir) / wav).string();
  clip.kind = ParseKind(f.Get("kind", JsonValue::kString).AsString(), where);
  clip.duration = f.Get("duration", JsonValue::kNumber).AsNumber();
  clip.split = f.OptionalString("split");
  clip.engine = f.OptionalString("engine");
  clip.voice = f.OptionalString("voice");
  clip.text = f.OptionalString("text");
  clip.placement = f.OptionalString("placement");
  clip.noise = f.OptionalString("noise");
  if (const JsonValue* speed = object.Find("speed"); speed != nullptr && speed->IsNumber()) {
    clip.speed = speed->AsNumber();
  }
  if (clip.kind == ClipKind::kConfusable && object.Find("span") != nullptr) {
    std::vector<double> span = Numbers(f, f.Get("span", JsonValue::kArray), "span", 0, 2);
    clip.span_start = span[0];
    clip.span_end = span[1];
    if (const JsonValue* differs = object.Find("differs"); differs != nullptr) {
      f.Check(*differs, "differs", JsonValue::kArray);
      for (const JsonValue& d : differs->AsArray()) {
        std::vector<double> times = Numbers(f, d, "differs", 0, 2);
        clip.differs.emplace_back(times[0], times[1]);
      }
    }
  }
  if (clip.kind == ClipKind::kNegative) {
    const JsonValue* utterances = object.Find("utterances");
    if (utterances != nullptr && utterances->IsArray()) {
      for (const JsonValue& u : utterances->AsArray()) {
        if (!u.IsArray() || u.AsArray().size() < 3 || !u.AsArray()[2].IsString()) continue;
        if (u.AsArray()[2].AsString() != "confusable") continue;
        // [start, end, type, engine, voice, text]: only the times are read.
        const std::vector<JsonValue>& items = u.AsArray();
        f.Check(items[0], "utterances", JsonValue::kNumber);
        f.Check(items[1], "utterances", JsonValue::kNumber);
        clip.confusable_spans.emplace_back(items[0].AsNumber(), items[1].AsNumber());
        clip.confusable_texts.push_back(items.size() > 5 && items[5].IsString() ? items[5].AsString()
                                                                               : std::string());
      }
    }
  }
  if (clip.kind != ClipKind::kPositive) return clip;

  std::vector<double> span = Numbers(f, f.Get("hotword", JsonValue::kArray), "hotword", 0, 2);
  clip.hotword_start = span[0];
  clip.hotword_end = span[1];
  if (!(span[0] < span[1])) {
    KESTREL_ERR("corpus-manifest") << where << ": field \"hotword\": expected start < end, found ["
                                   << span[0] << ", " << span[1] << "]";
  }
  const char* key = object.Find("phonemes_arpa") != nullptr ? "phonemes_arpa" : "phonemes";
  const JsonValue& phones = f.Get(key, JsonValue::kArray);
  for (const JsonValue& p : phones.AsArray()) {
    f.Check(p, key, JsonValue::kArray);
    if (p.AsArray().empty() || !p.AsArray()[0].IsString()) {
      KESTREL_ERR("corpus-manifest") << where << ": field \"" << key
                                     << "\": expected [symbol, start, end] entries";
    }
    std::vector<double> times = Numbers(f, p, key, 1, 2);
    clip.phones.push_back({p.AsArray()[0].AsString(), times[0], times[1]});
  }
  if (clip.phones.empty()) {
    KESTREL_ERR("corpus-manifest") << where << ": field \"" << key
                                   << "\": a positive clip needs its phoneme timings, found none";
  }
  return clip;
}

std::vector<CorpusClip> ReadManifest(const std::string& path) {
  std::ifstream is(path);
  if (!is) KESTREL_ERR("corpus-manifest") << path << ": cannot open the manifest";
  std::string base_dir = std::filesystem::path(path).parent_path().string();
  std::vector<CorpusClip> clips;
  std::string line;
  for (int number = 1; std::getline(is, line); ++number) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    clips.push_back(ParseManifestLine(line, path + ":" + std::to_string(number), base_dir));
  }
  return clips;
}

}  // namespace kestrel
