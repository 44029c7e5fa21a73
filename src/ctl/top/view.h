#pragma once

#include "table.h"
#include "top/model.h"

#include <QSize>
#include <QVector>

namespace Ctl::Top {

/// A part of a line; nothing in it is left that a terminal would obey.
struct Span
{
    QString text;
    Style style = Style::Plain;
};

struct Line
{
    QVector<Span> spans; ///< side by side, from the first column on
    bool isSelected = false;
};

/// The screen: @p size.height() lines at most, of at most @p size.width() columns each. Where the room does
/// not suffice, the columns that tell least are left out, then lines of the head and the foot.
[[nodiscard]] QVector<Line> draw(const Model &model, const QSize &size);

/// How many rows of the table draw() has room for, at least 1.
[[nodiscard]] int pageOf(const Model &model, int height);

/// Head and table alone, for a stream. @p width: 0 for no limit.
[[nodiscard]] QVector<Line> drawPlain(const Model &model, int width);

} // namespace Ctl::Top
