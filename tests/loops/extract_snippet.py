# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Writes the code of one section of a document into a file: extract_snippet.py DOCUMENT SECTION FILE

It is the first code there that is in the language of the file.
"""

import pathlib
import re
import sys

document, section, file = sys.argv[1:]
text = pathlib.Path(document).read_text(encoding="utf-8")
language = {".h": "cpp", ".py": "python"}[pathlib.Path(file).suffix]
code, = re.findall(rf"^## {re.escape(section)}\n(?:(?!^## ).)*?^```{language}\n(.*?)^```$", text,
                   re.MULTILINE | re.DOTALL)
pathlib.Path(file).write_text(code, encoding="utf-8")
