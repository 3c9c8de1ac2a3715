# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The Python scripts in scripts/, as modules."""

import importlib.machinery
import importlib.util
import os
import pathlib

SOURCE = pathlib.Path(os.environ["VARNIX_SOURCE"])


def load(name):
    loader = importlib.machinery.SourceFileLoader(name.replace("-", "_"), str(SOURCE / "scripts" / name))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module
