#include "model/RecordSchema.h"

#include <set>

#include "model/Endpoint.h"
#include "model/FileHandle.h"
#include "model/QXFeedback.h"
#include "model/QXResultSection.h"
#include "model/QXSearchResult.h"
#include "model/QXSearchSuggestion.h"
#include "model/VORBag.h"
#include "model/VORError.h"
#include "model/VORQueryItem.h"
#include "model/VORReply.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"

namespace vorlen {

const char* fieldTypeName(FieldType type) {
  switch (type) {
    case FieldType::String:
      return "string";
    case FieldType::Int:
      return "integer";
    case FieldType::UInt:
      return "unsigned integer";
    case FieldType::Real:
      return "real";
    case FieldType::Bool:
      return "boolean";
    case FieldType::Date:
      return "date";
    case FieldType::Data:
      return "data";
    case FieldType::Guid:
      return "GUID";
    case FieldType::Record:
      return "record";
    case FieldType::Dict:
      return "dictionary";
    case FieldType::StringMap:
      return "dictionary of strings";
    case FieldType::Plist:
      return "property-list value";
  }
  return "value";
}

const RecordSchema& RecordSchema::shared() {
  static const RecordSchema* schema = [] {
    std::vector<ClassDef> classes = {
        VORSessionConfiguration::binding().classDef(),
        VORQueryItem::binding().classDef(),
        VORReply::binding().classDef(),
        VORError::binding().classDef(),
        VORBagRecord::binding().classDef(),
        QXSearchSuggestion::binding().classDef(),
        QXSearchResult::binding().classDef(),
        QXResultSection::binding().classDef(),
        Endpoint::binding().classDef(),
        FileHandle::binding().classDef(),
    };
    for (ClassDef& c : VORRequest::classDefs()) classes.push_back(std::move(c));
    for (ClassDef& c : QXFeedback::classDefs()) classes.push_back(std::move(c));
    return new RecordSchema(std::move(classes));
  }();
  return *schema;
}

RecordSchema::RecordSchema(std::vector<ClassDef> classes) : classes_(std::move(classes)) {
  // The first entry of a name wins; problems() reports the duplicate.
  for (size_t i = 0; i < classes_.size(); ++i) index_.emplace(classes_[i].name, i);
  superclass_.resize(classes_.size(), kNone);
  for (size_t i = 0; i < classes_.size(); ++i) {
    if (!classes_[i].superclass.empty()) superclass_[i] = indexOf(classes_[i].superclass);
  }
  // Chains are walked at most class-count steps, so that a cycle in a faulty table cannot loop forever.
  fields_.resize(classes_.size());
  for (size_t i = 0; i < classes_.size(); ++i) {
    std::vector<size_t> chain;
    for (size_t c = i; c != kNone && chain.size() <= classes_.size(); c = superclass_[c]) chain.push_back(c);
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
      for (const FieldDef& f : classes_[*it].fields) fields_[i].push_back(&f);
    }
  }
  fieldByName_.resize(classes_.size());
  for (size_t i = 0; i < classes_.size(); ++i) {
    for (auto it = fields_[i].rbegin(); it != fields_[i].rend(); ++it)
      fieldByName_[i].emplace((*it)->name, *it);
  }
}

size_t RecordSchema::indexOf(std::string_view className) const {
  auto it = index_.find(className);
  return it == index_.end() ? kNone : it->second;
}

const ClassDef* RecordSchema::find(std::string_view className) const {
  size_t i = indexOf(className);
  return i == kNone ? nullptr : &classes_[i];
}

bool RecordSchema::isKindOf(std::string_view className, std::string_view base) const {
  size_t c = indexOf(className);
  for (size_t steps = 0; c != kNone && steps <= classes_.size(); ++steps, c = superclass_[c]) {
    if (classes_[c].name == base) return true;
  }
  return false;
}

const FieldDef* RecordSchema::field(std::string_view className, std::string_view fieldName) const {
  size_t c = indexOf(className);
  if (c == kNone) return nullptr;
  auto it = fieldByName_[c].find(fieldName);
  return it == fieldByName_[c].end() ? nullptr : it->second;
}

const std::vector<const FieldDef*>& RecordSchema::allFields(std::string_view className) const {
  static const std::vector<const FieldDef*> kEmpty;
  size_t c = indexOf(className);
  return c == kNone ? kEmpty : fields_[c];
}

std::vector<std::string> RecordSchema::classNames() const {
  std::vector<std::string> names;
  for (const ClassDef& c : classes_) names.push_back(c.name);
  return names;
}

std::vector<std::string> RecordSchema::problems() const {
  std::vector<std::string> out;
  std::set<std::string, std::less<>> seen;
  for (const ClassDef& c : classes_) {
    if (!seen.insert(c.name).second) out.push_back("class " + c.name + " is declared twice");
    if (!c.superclass.empty() && !find(c.superclass)) {
      out.push_back("class " + c.name + " derives from unknown class " + c.superclass);
    }
    // Walk the chain: a cycle never reaches a root within the class count.
    const ClassDef* s = &c;
    size_t steps = 0;
    std::set<std::string, std::less<>> names;
    for (; s && steps <= classes_.size(); ++steps) {
      for (const FieldDef& f : s->fields) {
        if (!names.insert(f.name).second)
          out.push_back("field " + f.name + " of " + c.name + " is declared twice");
        if (f.name == "$class") out.push_back("class " + c.name + " declares a field named $class");
        if (f.type == FieldType::Record && !find(f.recordClass)) {
          out.push_back("field " + s->name + "." + f.name + " names unknown class " + f.recordClass);
        }
      }
      s = s->superclass.empty() ? nullptr : find(s->superclass);
    }
    if (s) out.push_back("class " + c.name + " is part of an inheritance cycle");
  }
  return out;
}

}  // namespace vorlen
