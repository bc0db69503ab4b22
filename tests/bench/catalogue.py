"""P2: the catalogue beside simdjson, and the flat readers beside memchr."""

import figures
import native

TITLE = "the catalogue and the flat readers"
SERVERS = 10000

EXPLANATION = """\
Both readings fill the same records from the same body, and are compared field by field. What simdjson needs
beforehand, a copy of the body in a padded buffer, is not counted, and its parser is used again. The flat
readers get a body of a megabyte; the key that they look for stands in its last member, or nowhere."""


def measure(run):
    repetitions = 15
    catalogues = figures.medians(native.run_bench(run, "^Catalogue", repetitions))
    readers = figures.medians(native.run_bench(run, "^(LastKey|AbsentKey|Memchr)", repetitions))
    floor = readers["Memchr", 0] * 1e6
    rows = [figures.Figure(f"{SERVERS:,} servers to records", catalogues["CatalogueTelvor", SERVERS] * 1e3,
                           "ms", 1, "simdjson", catalogues["CatalogueSimdjson", SERVERS] * 1e3)]
    rows += [figures.Figure(f"{work.split('/')[1]}, absent key in 1 MB", seconds * 1e6, "us", 2, "memchr",
                            floor)
             for (work, _), seconds in sorted(readers.items()) if work.startswith("AbsentKey")]
    pictures = [
        figures.Picture("catalogue", "The catalogue to records, by its number of servers",
                        lambda drawing: native.draw_growth(
                            drawing, catalogues,
                            {"CatalogueTelvor": "TELVOR", "CatalogueSimdjson": "simdjson"}, "servers")),
        figures.Picture("readers", "One read of a body of a megabyte",
                        lambda drawing: draw_readers(drawing, readers)),
    ]
    return figures.Measurement(rows, pictures, [EXPLANATION])


def draw_readers(drawing, seconds):
    axes = drawing.subplots()
    names = sorted({work.split("/")[1] for work, _ in seconds if "/" in work})
    for shift, (kind, label) in enumerate((("LastKey", "key at the end"), ("AbsentKey", "no such key"))):
        axes.barh([place + shift * 0.4 for place in range(len(names))],
                  [seconds[f"{kind}/{name}", 0] * 1e6 for name in names], height=0.38, label=label)
    axes.axvline(seconds["Memchr", 0] * 1e6, color="black", linestyle="--", label="memchr")
    axes.set(yticks=[place + 0.2 for place in range(len(names))], yticklabels=names, xlabel="microseconds")
    axes.legend()
