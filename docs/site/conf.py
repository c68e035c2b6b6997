"""Settings of Sphinx for the documentation site. docs/build.sh runs it on a copy of docs/."""

import os
import re
from pathlib import Path

os.environ.setdefault("OMP_NUM_THREADS", "2")
ROOT = Path(os.environ["CTESSEL_ROOT"])

project = "cTessel"
author = "the cTessel maintainers"
release = version = re.search(r"project\(cTessel VERSION ([0-9.]+)", (ROOT / "CMakeLists.txt").read_text())[1]
project_copyright = author

extensions = ["myst_parser", "sphinx.ext.autodoc", "sphinx.ext.napoleon", "sphinx_gallery.gen_gallery"]
exclude_patterns = ["**sg_execution_times.rst"]  # newer galleries load scripts of a network there
default_role = "code"
highlight_language = "none"
myst_heading_anchors = 3

# Everything that a page loads lies beside it.
html_theme = "furo"
html_title = f"cTessel {version}"
html_copy_source = False
html_show_sphinx = False
html_static_path = [str(ROOT / "docs" / "site" / "_static")]
html_css_files = ["site.css"]

autodoc_member_order = "bysource"
autodoc_typehints = "none"
napoleon_use_rtype = False
napoleon_google_docstring = False

sphinx_gallery_conf = {
    "examples_dirs": str(ROOT / "python" / "examples"),
    "gallery_dirs": "gallery",
    "filename_pattern": r"\.py$",
    "download_all_examples": False,
    "show_signature": False,
    "show_memory": False,
    "min_reported_time": 1_000_000,
    "plot_gallery": "True",
    "abort_on_example_error": True,
    "remove_config_comments": True,
}
