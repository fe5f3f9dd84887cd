// JsonValue: a parsed JSON document, just enough to read corpus manifests
// (one object per line). Numbers are doubles; objects keep their keys sorted.
//
// ParseJson throws KestrelError naming `where` (for example "train.jsonl:12")
// and the byte offset of the first character it could not take.
#ifndef KESTREL_TRAINING_TRAINER_JSON_VALUE_H_
#define KESTREL_TRAINING_TRAINER_JSON_VALUE_H_

#include <map>
#include <string>
#include <vector>

namespace kestrel {

class JsonValue {
 public:
  enum Type { kNull, kBool, kNumber, kString, kArray, kObject };

  Type type() const { return type_; }
  bool IsNull() const { return type_ == kNull; }
  bool IsNumber() const { return type_ == kNumber; }
  bool IsString() const { return type_ == kString; }
  bool IsArray() const { return type_ == kArray; }
  bool IsObject() const { return type_ == kObject; }

  bool AsBool() const { return bool_; }
  double AsNumber() const { return number_; }
  const std::string& AsString() const { return string_; }
  const std::vector<JsonValue>& AsArray() const { return array_; }
  const std::map<std::string, JsonValue>& AsObject() const { return object_; }

  // The member `key` of an object, or null when absent (or not an object).
  const JsonValue* Find(const std::string& key) const;

 private:
  friend class JsonParser;
  Type type_ = kNull;
  bool bool_ = false;
  double number_ = 0.0;
  std::string string_;
  std::vector<JsonValue> array_;
  std::map<std::string, JsonValue> object_;
};

JsonValue ParseJson(const std::string& text, const std::string& where);

}  // namespace kestrel

#endif  // KESTREL_TRAINING_TRAINER_JSON_VALUE_H_
