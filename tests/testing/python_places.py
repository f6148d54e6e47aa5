"""Prints the paths outside /usr that its interpreter needs, one on each line. The sandbox shows them and
nothing else of the home in which they may lie."""
import os
import sys
import sysconfig

paths = sysconfig.get_paths()
places = [sys.executable, os.path.realpath(sys.executable), os.path.join(sys.prefix, "pyvenv.cfg"),
          *(paths[name] for name in ("stdlib", "platstdlib", "purelib", "platlib"))]
if sysconfig.get_config_var("Py_ENABLE_SHARED"):
    places.append(os.path.join(*sysconfig.get_config_vars("LIBDIR", "INSTSONAME")))
shown = []
for place in places:
    if os.path.exists(place) and not f"{place}/".startswith(("/usr/", *(f"{top}/" for top in shown))):
        shown.append(place)
sys.stdout.writelines(f"{place}\n" for place in shown)
