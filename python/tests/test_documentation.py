"""Examples of the documentation run, and the type stubs have the functions' own signatures."""

import ast
import doctest
import importlib
import inspect
from pathlib import Path

import pytest

import ctessel

MODULES = ["_arrays", "_coils", "_geometry", "_helpers", "_sense", "homodyne", "nifti", "phantom", "pipeline"]


@pytest.mark.parametrize("name", MODULES)
def test_examples_in_the_documentation_run(name):
    assert doctest.testmod(importlib.import_module(f"ctessel.{name}")).failed == 0


def test_licences_of_others_are_installed():
    assert "Arm Limited" in (Path(ctessel.__file__).parent / "NOTICE").read_text()


def shape_of(arguments):
    keyword_only = [(a.arg, ast.unparse(d) if d else None) for a, d in zip(arguments.kwonlyargs, arguments.kw_defaults)]
    return [a.arg for a in arguments.args], [ast.unparse(d) for d in arguments.defaults], keyword_only


@pytest.mark.parametrize("module", [ctessel, ctessel.homodyne], ids=lambda m: m.__name__)
def test_stubs_name_every_function_and_its_arguments(module):
    stub = Path(module.__file__).with_suffix(".pyi")
    stubs = {f.name: shape_of(f.args) for f in ast.parse(stub.read_text()).body if isinstance(f, ast.FunctionDef)}
    public = {n: getattr(module, n) for n in [*module.__all__, "round"] if inspect.isfunction(getattr(module, n, None))}
    assert stubs.keys() == public.keys()
    for name, function in public.items():
        source = ast.parse(inspect.getsource(function)).body[0]
        assert shape_of(source.args) == stubs[name], name
        assert function.__doc__
