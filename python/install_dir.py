"""Prints where the Python module installs, relative to the install prefix
given as the argument: the interpreter's directory for packages of the system
(Debian's dist-packages) or, elsewhere, its platform library directory."""
import os
import sys
import sysconfig

prefix = sys.argv[1]
version = f"{sys.version_info.major}.{sys.version_info.minor}"
schemes = sysconfig.get_scheme_names()
if "deb_system" in schemes:
    # Debian reads /usr/lib/python3/dist-packages and, for local installs,
    # /usr/local/lib/python3.X/dist-packages.
    print("lib/python3/dist-packages" if os.path.normpath(prefix) == "/usr"
          else f"lib/python{version}/dist-packages")
else:
    path = sysconfig.get_path("platlib", "posix_prefix",
                              vars={"base": prefix, "platbase": prefix})
    print(os.path.relpath(path, prefix))
