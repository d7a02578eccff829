"""Loads tools/tolvanger-fit as a module (it has no .py suffix)."""

import importlib.machinery
import importlib.util
import os

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
FIT = os.path.join(ROOT, "tools", "tolvanger-fit")


def load():
    loader = importlib.machinery.SourceFileLoader("tolvanger_fit", FIT)
    spec = importlib.util.spec_from_loader("tolvanger_fit", loader)
    module = importlib.util.module_from_spec(spec)
    loader.exec_module(module)
    return module


fit = load()
