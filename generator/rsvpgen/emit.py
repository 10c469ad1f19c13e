"""Renders the typed model through the Jinja2 templates. Templates only
format; every decision is taken in the model or here."""

import os
import textwrap

import jinja2

HERE = os.path.dirname(os.path.abspath(__file__))
TEMPLATES = os.path.join(os.path.dirname(HERE), "templates")


def generator_files():
    """Every file whose change must rerun the generator."""
    files = [os.path.join(os.path.dirname(HERE), "rsvpgen.py")]
    for directory in (HERE, TEMPLATES):
        files += [os.path.join(directory, f) for f in sorted(os.listdir(directory))
                  if f.endswith((".py", ".j2"))]
    return files


def cpp_string(text):
    """A C++ string literal holding `text`."""
    escaped = text.replace("\\", "\\\\").replace('"', '\\"')
    return f'"{escaped}"'


def comment(text, indent):
    """`text` as // comment lines, wrapped at 100 columns."""
    width = 100 - len(indent) - 3
    lines = []
    for paragraph in text.strip().split("\n\n"):
        if lines:
            lines.append(indent + "//")
        lines += [indent + "// " + line
                  for line in textwrap.wrap(" ".join(paragraph.split()), width)]
    return "\n".join(lines)


def namespace_blocks(types):
    """Consecutive runs of types that share a namespace, as (ns, [types])."""
    blocks = []
    for t in types:
        if blocks and blocks[-1][0] == t.ns:
            blocks[-1][1].append(t)
        else:
            blocks.append((t.ns, [t]))
    return blocks


def _environment():
    env = jinja2.Environment(
        loader=jinja2.FileSystemLoader(TEMPLATES),
        trim_blocks=True,
        lstrip_blocks=True,
        keep_trailing_newline=True,
        undefined=jinja2.StrictUndefined,
    )
    env.filters["cpp_string"] = cpp_string
    env.filters["comment"] = comment
    env.globals["namespace_blocks"] = namespace_blocks
    return env


def render(model):
    """Every output file of the model, as {relative path: text}."""
    env = _environment()
    outputs = {}
    for unit in model.units:
        if unit.imported:
            continue
        args = {"unit": unit, "model": model}
        outputs[f"Rsvp/{unit.name}.h"] = env.get_template("unit.h.j2").render(args)
        outputs[f"src/{unit.name}.cpp"] = env.get_template("unit.cpp.j2").render(args)
    if not any(unit.imported for unit in model.units):
        outputs["Rsvp/Rsvp.h"] = env.get_template("umbrella.h.j2").render(model=model)
        outputs["Rsvp/RsvpTypes.h"] = env.get_template("registry.h.j2").render(model=model)
        outputs["src/RsvpTypes.cpp"] = env.get_template("registry.cpp.j2").render(model=model)
    return outputs


def write_if_changed(path, text):
    try:
        with open(path, encoding="utf-8") as f:
            if f.read() == text:
                return
    except FileNotFoundError:
        pass
    os.makedirs(os.path.dirname(path), exist_ok=True)
    tmp = path + ".tmp"
    with open(tmp, "w", encoding="utf-8") as f:
        f.write(text)
    os.replace(tmp, path)
