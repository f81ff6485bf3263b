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
}

const ClassDef* RecordSchema::find(std::string_view className) const {
  auto it = index_.find(className);
  return it == index_.end() ? nullptr : &classes_[it->second];
}

bool RecordSchema::isKindOf(std::string_view className, std::string_view base) const {
  // Bounded by the class count, so that a cycle in a faulty table cannot loop forever.
  const ClassDef* c = find(className);
  for (size_t steps = 0; c && steps <= classes_.size(); ++steps) {
    if (c->name == base) return true;
    c = c->superclass.empty() ? nullptr : find(c->superclass);
  }
  return false;
}

const FieldDef* RecordSchema::field(std::string_view className, std::string_view fieldName) const {
  const ClassDef* c = find(className);
  for (size_t steps = 0; c && steps <= classes_.size(); ++steps) {
    for (const FieldDef& f : c->fields) {
      if (f.name == fieldName) return &f;
    }
    c = c->superclass.empty() ? nullptr : find(c->superclass);
  }
  return nullptr;
}

std::vector<const FieldDef*> RecordSchema::allFields(std::string_view className) const {
  std::vector<const ClassDef*> chain;
  const ClassDef* c = find(className);
  for (size_t steps = 0; c && steps <= classes_.size(); ++steps) {
    chain.push_back(c);
    c = c->superclass.empty() ? nullptr : find(c->superclass);
  }
  std::vector<const FieldDef*> fields;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    for (const FieldDef& f : (*it)->fields) fields.push_back(&f);
  }
  return fields;
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
