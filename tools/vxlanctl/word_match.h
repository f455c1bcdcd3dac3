// Words of the command line that may be shortened as ip(8) allows: a word
// stands for the choice it spells in full, else for the one choice it
// begins. A word that begins several choices is refused rather than guessed,
// so that a later verb cannot silently change what an old script does.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vxlanctl {

struct WordMatch {
    enum class Kind { Found, Unknown, Ambiguous };
    Kind kind = Kind::Unknown;
    std::string word;                     // Found: the choice meant
    std::vector<std::string> candidates;  // Ambiguous: the choices it begins, in their order
};

// An empty word matches nothing.
WordMatch match_word(std::string_view given, const std::vector<std::string> &choices);

// "a, b or c", for naming the candidates of an ambiguous word.
std::string one_of(const std::vector<std::string> &words);

}  // namespace vxlanctl
