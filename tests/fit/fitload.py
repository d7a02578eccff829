"""Loads tools/tolvanger-fit as a module (it has no .py suffix)."""

import importlib.machinery
import os
import types

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
FIT = os.path.join(ROOT, "tools", "tolvanger-fit")


def load():
    loader = importlib.machinery.SourceFileLoader("tolvanger_fit", FIT)
    module = types.ModuleType("tolvanger_fit")
    module.__file__ = FIT
    loader.exec_module(module)
    return module


fit = load()
