#include <Kel/ReadOnlyProxy.h>

#include <memory>
#include <string>

namespace Kel {

namespace {

class ReadOnlyIter final : public GenericIter {
 public:
  ReadOnlyIter(std::unique_ptr<GenericIter> inner, std::string_view type, std::string_view attr)
      : inner_(std::move(inner)), type_(type), attr_(attr) {}
  [[nodiscard]] bool done() const override { return inner_->done(); }
  void next() override { inner_->next(); }
  [[nodiscard]] void const* key() const override { return inner_->key(); }
  [[nodiscard]] void const* element() const override { return inner_->element(); }
  [[nodiscard]] Entity const* entity() const override { return inner_->entity(); }
  void delCurrent() override { throw ReadOnlyProxyException(type_, attr_); }

 private:
  std::unique_ptr<GenericIter> inner_;
  std::string_view type_;
  std::string_view attr_;
};

bool reads(U32 op) {
  switch (op) {
    case attrOpRead:
    case attrOpPeek:
    case attrOpIterate:
    case attrOpSize:
    case attrOpMemberRead:
    case attrOpCheck:
    case attrOpNextSeq:
    case attrOpIsDefault:
    case valueOpIsNull:
    case valueOpEqual:
    case valueOpLess: return true;
    default: return false;
  }
}

}  // namespace

ReadOnlyProxyException::ReadOnlyProxyException(std::string_view type, std::string_view attr)
    : Exception("Attribute " + std::string(type) + "::" + std::string(attr) +
                " is read-only through this proxy") {}

int ReadOnlyProxy::attributeOp(void* result, KelAttr const* attr, U32 op, void const* arg1,
                               void const* arg2) const {
  TypeDesc const& type = entity_->fwkType();
  if (!reads(op)) throw ReadOnlyProxyException(type.name(), attr ? attr->name : "");
  void* const object = const_cast<Entity*>(entity_);
  int const status = type.attributeOp(result, object, attr, op, arg1, arg2);
  if (op == attrOpIterate && status == attrDone) {
    auto& it = *static_cast<std::unique_ptr<GenericIter>*>(result);
    it = std::make_unique<ReadOnlyIter>(std::move(it), type.name(), attr->name);
  }
  return status;
}

}  // namespace Kel
