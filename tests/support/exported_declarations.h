// Names of the functions a header declares with KS_API at the start of a
// line, for the tests that check the shared library's exports.
#ifndef KS_TEST_EXPORTED_DECLARATIONS_H
#define KS_TEST_EXPORTED_DECLARATIONS_H

#include <fstream>
#include <set>
#include <string>

inline std::set<std::string> exported_declarations(const std::string& header) {
    std::ifstream in(header);
    std::set<std::string> names;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("KS_API ", 0) != 0) continue;
        const size_t paren = line.find('(');
        if (paren == std::string::npos || paren == 0) continue;
        const size_t end = line.find_last_not_of(' ', paren - 1);
        const size_t begin = line.find_last_of(" *", end);
        names.insert(line.substr(begin + 1, end - begin));
    }
    return names;
}

#endif
