#include <Kel/Entity.h>
#include <Kel/Exception.h>
#include <Kel/Reflect.h>

namespace Kel {

TypeDesc const typeU8("U8", nullptr, 0, basicTypeParts<U8>());
TypeDesc const typeU16("U16", nullptr, 0, basicTypeParts<U16>());
TypeDesc const typeU32("U32", nullptr, 0, basicTypeParts<U32>());
TypeDesc const typeU64("U64", nullptr, 0, basicTypeParts<U64>());
TypeDesc const typeS8("S8", nullptr, 0, basicTypeParts<S8>());
TypeDesc const typeS16("S16", nullptr, 0, basicTypeParts<S16>());
TypeDesc const typeS32("S32", nullptr, 0, basicTypeParts<S32>());
TypeDesc const typeS64("S64", nullptr, 0, basicTypeParts<S64>());
TypeDesc const typeBool("bool", nullptr, 0, basicTypeParts<bool>());
TypeDesc const typeF32("F32", nullptr, 0, basicTypeParts<F32>());
TypeDesc const typeF64("F64", nullptr, 0, basicTypeParts<F64>());
TypeDesc const typeSeconds("Kel::Seconds", nullptr, 0, basicTypeParts<Seconds>());
TypeDesc const typeString("Kel::String", nullptr, 0, basicTypeParts<String>());
TypeDesc const typeName("Kel::Name", nullptr, 0, basicTypeParts<Name>());

KelAttr const* TypeDesc::attr(std::string_view name) const noexcept {
  for (TypeDesc const* t = this; t; t = t->base_) {
    for (KelAttr const& a : t->parts_.attrs) {
      if (a.name == name) return &a;
    }
  }
  return nullptr;
}

KelAttr const* TypeDesc::attr(U32 index) const noexcept {
  for (TypeDesc const* t = this; t; t = t->base_) {
    for (KelAttr const& a : t->parts_.attrs) {
      if (a.index == index) return &a;
    }
  }
  return nullptr;
}

KelAttr const* TypeDesc::attrByLogId(U32 logId) const noexcept {
  if (logId == 0) return nullptr;
  for (TypeDesc const* t = this; t; t = t->base_) {
    for (KelAttr const& a : t->parts_.attrs) {
      if (a.logId == logId) return &a;
    }
  }
  return nullptr;
}

int TypeDesc::attributeOp(void* result, void* object, KelAttr const* attr, U32 op, void const* arg1,
                          void const* arg2) const {
  if (parts_.attributeOp) return parts_.attributeOp(result, object, attr, op, arg1, arg2);
  if (attr) return attrUnknown;
  return valueOp(*this, result, object, op, arg1);
}

std::unique_ptr<NotifieeBase> TypeDesc::genericNotifiee(Entity const* entity,
                                                        GenericNotifiee* target) const {
  if (!parts_.genericNotifiee) return nullptr;
  return parts_.genericNotifiee(entity, target);
}

int valueOp(TypeDesc const& type, void* result, void const* object, U32 op, void const* arg) {
  ValueOps const* ops = type.ops();
  if (!ops) return attrUnsupported;
  bool* const out = static_cast<bool*>(result);
  switch (op) {
    case valueOpIsNull: {
      GenericValue const fresh(type);
      *out = ops->equal(object, fresh.get());
      return attrDone;
    }
    case valueOpEqual: *out = ops->equal(object, arg); return attrDone;
    case valueOpLess:
      if (!ops->less) return attrUnsupported;
      *out = ops->less(object, arg);
      return attrDone;
    default: return attrUnsupported;
  }
}

GenericValue::GenericValue(TypeDesc const& type) : type_(&type) {
  ValueOps const* ops = type.ops();
  // In every build: without value methods there is nothing to size the
  // storage by or to construct it with.
  if (!ops) throw NoValueMethodsException(type.name());
  data_ = ops->size <= kInline && ops->align <= 16
              ? static_cast<void*>(inline_)
              : ::operator new(ops->size, std::align_val_t(ops->align));
  ops->construct(data_);
}

GenericValue::~GenericValue() {
  type_->ops()->destroy(data_);
  if (!inlined()) ::operator delete(data_, std::align_val_t(type_->ops()->align));
}

String GenericValue::strep() const {
  String out;
  type_->ops()->appendStrep(out, data_);
  return out;
}

void GenericValue::strepIs(std::string_view text) {
  GenericValue parsed(*type_);
  TextIt it = text.data();
  TextIt const end = it + text.size();
  type_->ops()->parse(it, end, parsed.data_);
  if (it != end) throw RangeException("Invalid " + String(type_->name()));
  type_->ops()->assign(data_, parsed.data_);
}

}  // namespace Kel
