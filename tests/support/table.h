// Reads the bundled tables: text lines, compressed with xz, split at '|'.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

namespace zel::test {

// Calls `row` with every line of data/NAME without its line feed; the number of lines, -1 when the file cannot be read.
inline long eachRow(const std::string &name, const std::function<void(std::string_view)> &row) {
    const std::string command = "xz -dc '" ZEL_DATA_DIR "/" + name + "'";
    FILE *pipe = popen(command.c_str(), "r");
    if (!pipe) return -1;
    char line[65536];
    long rows = 0;
    while (fgets(line, sizeof line, pipe)) {
        std::string_view text(line);
        if (text.ends_with('\n')) text.remove_suffix(1);
        row(text);
        ++rows;
    }
    return pclose(pipe) == 0 ? rows : -1;
}

// The text up to the next '|', which is taken off `rest`.
inline std::string_view column(std::string_view &rest) {
    const size_t end = rest.find('|');
    const std::string_view text = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
    return text;
}

}  // namespace zel::test
