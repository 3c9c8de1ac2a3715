# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Writes the code of one section of a document into a file: extract_snippet.py DOCUMENT SECTION FILE"""

import pathlib
import re
import sys

document, section, file = sys.argv[1:]
text = pathlib.Path(document).read_text(encoding="utf-8")
code, = re.findall(rf"^## {re.escape(section)}\n(?:(?!^## ).)*?^```\w+\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)
pathlib.Path(file).write_text(code, encoding="utf-8")
