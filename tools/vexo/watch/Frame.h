#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "tools/vexo/watch/Scene.h"

namespace vexo::watch {

/// A line of the view, in pieces of one colour. Nothing in it commands a terminal.
class Line {
public:
    Line() = default;
    explicit Line(const std::string& text, const char* color = "") { add(text, color); }
    void add(const std::string& text, const char* color = "");

    /// Columns that it takes at most. A letter beyond ASCII counts with its bytes, which are no fewer than its columns.
    std::size_t width() const;
    /// Blanks behind it.
    void padTo(std::size_t width);
    void append(const Line& other);
    /// The line in no more than so many columns: ">" is at the end of one that was cut.
    Line cutTo(std::size_t columns) const;
    /// What is printed.
    std::string shown(bool colored) const;

private:
    std::vector<std::pair<std::string, const char*>> m_pieces;  // text, colour
};

/// The view: no more than @p rows lines of no more than @p columns. From 80 columns on, it has two halves.
std::vector<Line> frame(const Scene& scene, std::size_t columns, std::size_t rows);

/// "1234", "12.3M": a number in no more than five characters, up to 999T.
std::string shortNumber(double n);

/// "09:12:34 WARN text", as the view has lines of the log.
Line logLine(const ShownLine& line);

}  // namespace vexo::watch
