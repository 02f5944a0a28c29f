"""The fixtures of the integration tests serve the long ones, too."""

import importlib.util
import pathlib
import sys

_folder = pathlib.Path(__file__).parent.parent / "integration"
sys.path.insert(0, str(_folder))
_spec = importlib.util.spec_from_file_location("integration_fixtures", _folder / "conftest.py")
_fixtures = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(_fixtures)
globals().update({name: value for name, value in vars(_fixtures).items() if not name.startswith("__")})
