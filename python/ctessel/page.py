"""A self-contained HTML file: texts, tables, pictures, and a viewer of volumes.

Only the viewer needs JavaScript. All text from files is escaped.
"""

import base64
import functools
import gzip
import html
import importlib.resources
import json

import numpy as np

from . import png

#: The viewer's library, if it is installed.
LIBRARY = "niivue.umd.js"
#: Voxels of an embedded volume at most; larger ones are averaged over blocks of voxels in the plane.
MOST_VOXELS = 2**21
#: Volumes at most.
MOST_VOLUMES = 8
#: Grey levels of an embedded volume.
LEVELS = 1023

_STYLE = """
:root { color-scheme: light dark; --line: #767676; --warn: #8a3b00; }
@media (prefers-color-scheme: dark) { :root { --warn: #ffb27a; } }
body { font: 1rem/1.5 system-ui, sans-serif; margin: 0 auto; max-width: 75rem; padding: 0 1rem 3rem; }
h1, h2, p, li, td, th, figcaption, pre { overflow-wrap: anywhere; }
h2 { border-bottom: 1px solid var(--line); margin-top: 2.5rem; }
pre { border: 1px solid var(--line); padding: .6rem; white-space: pre-wrap; }
table { border-collapse: collapse; margin: 1rem 0; max-width: 100%; }
th, td { border-bottom: 1px solid var(--line); padding: .2rem .8rem .2rem 0; text-align: left; vertical-align: top; }
.warnings { border: 2px solid var(--warn); padding: 0 1rem; }
.warnings h2 { border: 0; color: var(--warn); margin-top: .8rem; }
.figures { display: grid; gap: 1.5rem; grid-template-columns: repeat(auto-fill, minmax(min(100%, 21rem), 1fr)); }
figure { margin: 0; min-width: 0; }
figure img, figure svg { background: #000; display: block; height: auto; max-width: 100%; }
figure svg { background: none; }
figcaption { font-size: .9rem; margin-top: .4rem; }
#views { display: flex; flex-wrap: wrap; gap: .5rem; }
#views div { background: #000; flex: 1 1 20rem; height: 28rem; min-width: 0; }
#controls { display: grid; gap: .6rem 1.5rem; grid-template-columns: repeat(auto-fit, minmax(14rem, 1fr)); margin: 1rem 0; }
#controls label { display: flex; flex-direction: column; }
[hidden] { display: none !important; }
button, select, input { font: inherit; }
:focus-visible { outline: 3px solid Highlight; outline-offset: 2px; }
"""


def escaped(text):
    """Text for HTML; characters that cannot be encoded are replaced."""
    return html.escape(str(text).encode("utf-8", "replace").decode("utf-8"))


class Page:
    """A page that grows section by section."""

    def __init__(self, title):
        self._title, self._parts, self._pictures, self._volumes = title, [], 0, []

    def add(self, markup):
        self._parts.append(markup)

    def section(self, heading, *parts, kind=""):
        named = f' class="{kind}"' if kind else ""
        self.add(f"<section{named}><h2>{escaped(heading)}</h2>{''.join(parts)}</section>")

    def figure(self, pixels, words, caption):
        """Markup of a picture; `words` stand for it where it cannot be seen."""
        file = png.encode(pixels)
        self._pictures += len(file)
        height, width = pixels.shape[:2]
        return (
            f'<figure><img src="data:image/png;base64,{base64.b64encode(file).decode()}" width="{width}" '
            f'height="{height}" alt="{escaped(words)}"><figcaption>{escaped(caption)}</figcaption></figure>'
        )

    def volume(self, name, values, affine, low=None, high=None, role="image"):
        """Embed a volume ``(x, y, z)`` for the viewer."""
        if len(self._volumes) < MOST_VOLUMES:
            self._volumes.append(_embedded(name, np.nan_to_num(values), affine, low, high, role))

    def viewer(self):
        """A section with the viewer of the volumes that were embedded."""
        self.section("Volumes", _viewer(self._volumes, self._code))

    @functools.cached_property
    def _code(self):
        return viewer_code()

    def text(self):
        """The page."""
        viewer = self._code if self._volumes else None
        data = sum(len(volume["base64"]) for volume in self._volumes)
        body = "".join(self._parts)
        script = (_VIEWER % (base64.b64encode(viewer).decode(), _data(self._volumes))) if viewer else ""
        size = len(body) + len(script) + len(_STYLE)
        stated = (
            f"<footer><p>This page has {size / 1e6:.1f} MB: pictures {self._pictures * 4 / 3e6:.1f} MB, "
            f"volumes {data / 1e6:.1f} MB. It needs no network.</p></footer>"
        )
        return (
            '<!DOCTYPE html>\n<html lang="en"><head><meta charset="utf-8">'
            '<meta name="viewport" content="width=device-width, initial-scale=1">'
            f'<link rel="icon" href="data:,"><title>{escaped(self._title)}</title><style>{_STYLE}</style></head>\n'
            f"<body><main><h1>{escaped(self._title)}</h1>{body}</main>{stated}{script}</body></html>\n"
        )


def table(rows):
    """Markup of names and values."""
    lines = "".join(
        f'<tr><th scope="row">{escaped(name)}</th><td>{escaped(value)}</td></tr>' for name, value in rows.items()
    )
    return f"<table>{lines}</table>"


def listed(texts, kind="ul"):
    return f"<{kind}>{''.join(f'<li>{escaped(text)}</li>' for text in texts)}</{kind}>"


def figures(made):
    return f'<div class="figures">{"".join(made)}</div>'


def histogram(values, words, caption, unit=""):
    """Markup of a histogram of values."""
    values = values[np.isfinite(values)]
    if values.size == 0:
        return ""
    low, high = np.percentile(values, (0.5, 99.5))
    counts, edges = np.histogram(values, 40, (low, high if high > low else low + 1))
    bars = "".join(
        f'<rect x="{10 + 9 * i}" y="{110 - h:.1f}" width="8" height="{h:.1f}"/>'
        for i, h in enumerate(100 * counts / max(1, counts.max()))
    )
    marks = ((10, edges[0], "start"), (190, (edges[0] + edges[-1]) / 2, "middle"), (370, edges[-1], "end"))
    numbers = "".join(f'<text x="{x}" y="128" text-anchor="{at}">{n:.3g}{unit}</text>' for x, n, at in marks)
    return (
        f'<figure><svg viewBox="0 0 380 136" width="380" height="136" role="img" aria-label="{escaped(words)}" '
        f'fill="currentColor" font-size="13">{bars}{numbers}</svg><figcaption>{escaped(caption)}</figcaption></figure>'
    )


# ---- Volumes -------------------------------------------------------------------------------------


def viewer_code():
    """The viewer's library, packed; None if it is not installed."""
    file = importlib.resources.files(__package__).joinpath(LIBRARY)
    return gzip.compress(file.read_bytes(), 9, mtime=0) if file.is_file() else None


def _embedded(name, values, affine, low, high, role):
    block = 1
    while values[::block, ::block].size > MOST_VOXELS:
        block += 1
    whole = values.shape
    values, affine = _thinned(values, affine, block)
    low = float(values.min()) if low is None else low
    high = png.usual_top(values) if high is None else high
    top = max(float(values.max()), high)
    slope = (top - low) / LEVELS or 1.0
    levels = np.clip((values - low) / slope, 0, LEVELS).astype(np.int16)
    return {
        "name": name, "role": role, "low": low, "high": high, "base64": _nifti(levels, affine, slope, low),
        "size": " x ".join(map(str, whole)), "block": block, "slices": values.shape[2],
    }  # fmt: skip


def _thinned(values, affine, block):
    """Means of blocks in the plane, and where they lie."""
    if block == 1:
        return values, affine
    nx, ny = (max(1, n // block) for n in values.shape[:2])
    steps = [min(block, n) for n in values.shape[:2]]
    cut = values[: nx * steps[0], : ny * steps[1]]
    means = cut.reshape(nx, steps[0], ny, steps[1], -1).mean((1, 3))
    scale = np.diag([*steps, 1.0, 1.0])
    scale[:2, 3] = [(step - 1) / 2 for step in steps]
    return means, affine @ scale


def _nifti(levels, affine, slope, intercept):
    import nibabel

    image = nibabel.Nifti1Image(levels, affine)
    image.header.set_slope_inter(slope, intercept)
    image.set_sform(affine, 1)
    return base64.b64encode(gzip.compress(image.to_bytes(), 6, mtime=0)).decode()


def _data(volumes):
    """JSON that cannot end the HTML element around it."""
    return json.dumps(volumes).replace("<", "\\u003c")


def _viewer(volumes, viewer):
    sizes = [f"{v['name']}: {v['size']} voxels" + _thinned_words(v["block"]) for v in volumes]
    cap = (
        f"<p>The first echo and repetition. At most {MOST_VOLUMES} volumes of {MOST_VOXELS:,} voxels in {LEVELS + 1} "
        "grey levels are embedded; larger ones are averaged in the plane.</p>"
    )
    if viewer is None:
        advice = "install npm, then ctessel again"
        return f"{listed(sizes)}{cap}<p>The viewer is missing: this ctessel was installed without it ({advice}).</p>"
    return listed(sizes) + cap + _CONTROLS


def _thinned_words(block):
    return f", embedded as means of {block} x {block}" if block > 1 else ""


_CONTROLS = """
<noscript><p>The viewer needs JavaScript; all pictures are there without it.</p></noscript>
<p><button type="button" id="show" hidden>Show viewer</button> <span id="status" role="status"></span></p>
<div id="viewer" hidden>
<div id="controls">
<label>Volume <select id="base"></select></label>
<label>Overlay <select id="overlay"><option value="">none</option></select></label>
<label>Opacity of the overlay <input type="range" id="opacity" min="0" max="1" step="0.05" value="0.6"></label>
<label>Beside it <select id="beside"><option value="">nothing</option></select></label>
<label>Layout <select id="layout"><option value="0">slice</option><option value="3">three planes</option>
<option value="4">rendering</option></select></label>
<label>Slice <input type="range" id="slice" min="0" value="0"></label>
<label>Darkest <input type="range" id="low" min="0" max="1" step="0.005" value="0"></label>
<label>Brightest <input type="range" id="high" min="0" max="1" step="0.005" value="1"></label>
</div>
<div id="views"><div><canvas id="first" tabindex="0" role="img" aria-label="Volume; the sliders above move and window it"></canvas></div>
<div id="other" hidden><canvas id="second" tabindex="0" role="img" aria-label="Volume beside it"></canvas></div></div>
</div>"""

#: Packed library and volumes; the library is unpacked when the viewer is asked for.
_VIEWER = """<script type="text/plain" id="library">%s</script>
<script type="application/json" id="volumes">%s</script>
<script>
"use strict";
(() => {
const get = (id) => document.getElementById(id);
const volumes = JSON.parse(get("volumes").textContent);
const option = (select, index) => select.add(new Option(volumes[index].name, index));
volumes.forEach((volume, index) => {
  option(get("base"), index);
  option(get("beside"), index);
  if (volume.role === "map") option(get("overlay"), index);
});
const views = [];
async function load() {
  const packed = Uint8Array.from(atob(get("library").textContent), (c) => c.charCodeAt(0));
  const stream = new Blob([packed]).stream().pipeThrough(new DecompressionStream("gzip"));
  const script = document.createElement("script");
  script.textContent = await new Response(stream).text();
  document.head.append(script);
}
async function made(id) {
  const view = new niivue.Niivue({ isResizeCanvas: true, dragAndDropEnabled: false, logLevel: "error", crosshairWidth: 0.5 });
  await view.attachTo(id);
  return view;
}
async function put(view, index, overlay) {
  while (view.volumes.length) view.removeVolume(view.volumes[0]);
  for (const [number, at] of [index, overlay].entries()) {
    if (at === "") continue;
    const { base64, low, high } = volumes[at];
    const image = await niivue.NVImage.loadFromBase64({ base64, name: `volume${at}.nii.gz`, cal_min: low, cal_max: high,
      colormap: number ? "viridis" : "gray", opacity: number ? Number(get("opacity").value) : 1 });
    view.addVolume(image);
  }
}
function arrange() {
  const flat = volumes[get("base").value].slices;
  get("slice").max = flat - 1;
  get("slice").disabled = flat < 2;
  for (const view of views) view.setSliceType(Number(get("layout").value));
  move();
}
function move() {
  const flat = volumes[get("base").value].slices;
  for (const view of views) {
    view.scene.crosshairPos[2] = (Number(get("slice").value) + 0.5) / flat;
    view.createOnLocationChange();
    view.drawScene();
  }
}
function window_() {
  const base = volumes[get("base").value], range = base.high - base.low;
  const image = views[0].volumes[0];
  image.cal_min = base.low + range * Number(get("low").value);
  image.cal_max = Math.max(image.cal_min + range / 500, base.low + range * Number(get("high").value));
  views[0].updateGLVolume();
}
async function choose() {
  await put(views[0], get("base").value, get("overlay").value);
  const beside = get("beside").value;
  get("other").hidden = beside === "";
  if (beside !== "") {
    if (views.length < 2) {
      views.push(await made("second"));
      views[0].broadcastTo([views[1]], { "2d": true, "3d": true });
    }
    await put(views[1], beside, "");
  }
  for (const view of views) view.resizeListener();
  arrange();
  window_();
  get("status").textContent = "";
}
function fade() {
  if (views[0].volumes.length > 1) views[0].setOpacity(1, Number(get("opacity").value));
}
get("show").hidden = false;
get("show").addEventListener("click", async () => {
  get("show").disabled = true;
  get("status").textContent = "unpacking ...";
  try {
    await load();
    get("viewer").hidden = false;
    views.push(await made("first"));
    get("slice").value = get("slice").max = volumes[0].slices - 1;
    get("slice").value = Math.floor(volumes[0].slices / 2);
    const plain = volumes.findIndex((volume, index) => index > 0 && volume.role === "image");
    get("beside").value = plain > 0 ? plain : "";
    await choose();
    get("show").hidden = true;
    get("viewer").dataset.ready = "yes";
  } catch (error) {
    get("status").textContent = `The viewer did not start: ${error.message}`;
  }
});
for (const id of ["base", "overlay", "beside"]) get(id).addEventListener("change", choose);
get("layout").addEventListener("change", arrange);
get("slice").addEventListener("input", move);
get("opacity").addEventListener("input", fade);
for (const id of ["low", "high"]) get(id).addEventListener("input", window_);
})();
</script>"""
