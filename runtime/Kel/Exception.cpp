#include <Kel/Exception.h>

namespace Kel {

NullPointerException::NullPointerException(std::string_view param, std::string_view qualifiedAttr)
    : Exception("null " + std::string(param) + " parameter to mutator for " +
                std::string(qualifiedAttr) + " not allowed\"") {}

ReinstantiationException::ReinstantiationException(std::string_view fullName, std::string_view attr,
                                                   std::string_view value)
    : Exception("Reinstantiating the entity with fullName " + std::string(fullName) +
                " where constructor parameter attribute '" + std::string(attr) +
                "' has a different value of " + std::string(value)) {}

ImmutableAttributeException::ImmutableAttributeException(std::string_view qualifiedAttr)
    : Exception("Attribute " + std::string(qualifiedAttr) + " is immutable") {}

NoValueMethodsException::NoValueMethodsException(std::string_view typeName)
    : Exception("Type " + std::string(typeName) + " has no value methods") {}

}  // namespace Kel
