#include "UserError.h"

#include "VisibleText.h"

#include <algorithm>
#include <cctype>
#include <numeric>

namespace micro850 {

namespace {

// Longer messages hold a text that nobody reads to its end.
const std::size_t kLongestMessage = 1000;

char folded(char c)
{
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

// Edit distance without regard to case.
std::size_t distance(const std::string& a, const std::string& b)
{
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t changed = diagonal + (folded(a[i - 1]) != folded(b[j - 1]));
            diagonal = row[j];
            row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row[b.size()];
}

} // namespace

UserError::UserError(const std::string& message, ExitStatus status)
    : std::runtime_error(visible(shortened(message, kLongestMessage))), m_status(status)
{
}

std::string didYouMean(const std::string& word, const std::vector<std::string>& candidates,
                       const std::string& prefix)
{
    const std::string* best = nullptr;
    std::size_t least = std::max<std::size_t>(word.size() / 2, 1) + 1;
    for (const std::string& candidate : candidates) {
        // Words of very different length are far apart without counting.
        if (std::max(word.size(), candidate.size()) - std::min(word.size(), candidate.size()) >=
            least)
            continue;
        const std::size_t away = distance(word, candidate);
        if (away < least) {
            least = away;
            best = &candidate;
        }
    }
    return best ? " (did you mean " + prefix + *best + "?)" : std::string();
}

} // namespace micro850
