// Output of the command-line host: UTF-8 text to the standard streams (whatever the console code page),
// and aligned text tables.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qvscan {

std::string utf8(std::wstring_view text);
std::wstring wide(std::string_view text);

void out(std::string_view text); // standard output
void err(std::string_view text); // standard error
// Whether standard error is a terminal (progress is drawn only there).
bool err_is_terminal();

// Columns aligned by the widest cell (counted in code points); the last column is not padded.
class table {
public:
    explicit table(std::vector<std::string> header) { m_rows.push_back(std::move(header)); }
    void add(std::vector<std::string> row) { m_rows.push_back(std::move(row)); }
    std::string render() const;

private:
    std::vector<std::vector<std::string>> m_rows;
};

} // namespace qvscan
