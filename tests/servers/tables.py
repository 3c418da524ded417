# SPDX-License-Identifier: MIT
"""Reads the tables of docs/servers.md, and prints tables in the same form."""
import re

from web_server import PAGE, SERVERS


def cells_of(line):
    return [cell.strip() for cell in line.strip("|\n").split("|")]


def table(heading):
    """Returns the cells of the table after a heading, by row and column; none if there is none."""
    text = re.search(rf"^## {re.escape(heading)}\n(.*?)(?=^## |\Z)", PAGE.read_text(), re.M | re.S)
    rows = [cells_of(line) for line in text[1].splitlines() if line.startswith("|")] if text else []
    return {row[0]: dict(zip(rows[0][1:], row[1:])) for row in rows[2:]}


def markdown(cells):
    """Returns the tables with the cells, each a table's name, a row, a column and a content."""
    text = ""
    for name in sorted({cell[0] for cell in cells}):
        own = [cell[1:] for cell in cells if cell[0] == name]
        rows, columns = (list(dict.fromkeys(cell[at] for cell in own)) for at in (0, 1))
        columns.sort(key=lambda column: (*SERVERS.values(), column).index(column))
        content = {(row, column): observed for row, column, observed in own}
        lines = [["", *columns], ["---"] * (len(columns) + 1)]
        lines += [[row, *(content.get((row, column), "") for column in columns)] for row in rows]
        text += f"\n{name}\n\n" + "".join(f"| {' | '.join(line)} |\n" for line in lines)
    return text
