// Searches over the texts a test helper recorded: a helper derives from
// line_search<Helper> and gives `std::vector<std::string> lines() const`.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

template <class Source>
class line_search {
public:
    // Lines holding `needle`, in the order they were recorded.
    std::vector<std::string> lines_with(std::string_view needle) const {
        std::vector<std::string> out;
        for (std::string& l : static_cast<const Source*>(this)->lines())
            if (l.find(needle) != std::string::npos) out.push_back(std::move(l));
        return out;
    }
    size_t count_with(std::string_view needle) const { return lines_with(needle).size(); }
};
