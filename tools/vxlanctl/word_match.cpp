// Shortened command-line words; see word_match.h.
#include "word_match.h"

namespace vxlanctl {

WordMatch match_word(std::string_view given, const std::vector<std::string> &choices)
{
    WordMatch match;
    if (given.empty())
        return match;
    for (const std::string &choice : choices) {
        if (choice == given)
            return WordMatch{WordMatch::Kind::Found, choice, {}};
        if (choice.starts_with(given))
            match.candidates.push_back(choice);
    }
    if (match.candidates.size() == 1) {
        match.kind = WordMatch::Kind::Found;
        match.word = match.candidates.front();
        match.candidates.clear();
    } else if (match.candidates.size() > 1) {
        match.kind = WordMatch::Kind::Ambiguous;
    }
    return match;
}

std::string one_of(const std::vector<std::string> &words)
{
    std::string out;
    for (size_t i = 0; i < words.size(); ++i)
        out += (i == 0 ? "" : i + 1 == words.size() ? " or " : ", ") + words[i];
    return out;
}

}  // namespace vxlanctl
