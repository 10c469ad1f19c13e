#include <Kel/RangeException.h>
#include <Lumo/IpTrie.h>

#include <string>

namespace Lumo::trie_internal {

void throwWrongFamily(std::string_view trie, std::string_view family, IpGenPrefix const& key) {
  std::string text(trie);
  text += " key ";
  appendStrep(text, key);
  text += " is not an ";
  text += family;
  text += " prefix";
  throw Kel::RangeException(std::move(text));
}

void throwHostBits(std::string_view trie, IpGenPrefix const& key) {
  std::string text(trie);
  text += " key ";
  appendStrep(text, key);
  text += " has bits set beyond its length";
  throw Kel::RangeException(std::move(text));
}

}  // namespace Lumo::trie_internal
