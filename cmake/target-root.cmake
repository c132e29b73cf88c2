# Where a cross-build finds the target's libraries (libcrypto); read by the
# toolchain files once they have set CMAKE_LIBRARY_ARCHITECTURE.
#
# By default: Debian's multiarch packages of the target installed on the host
# (libssl-dev:armhf) in /usr/lib/TRIPLE and /usr/include/TRIPLE.
# With TTY_HUB_SYSROOT=DIR (a cache variable or the environment): the target's
# Debian packages unpacked into DIR (dpkg-deb -x, as .ci/run does), and
# nothing of the host's /usr, whatever multiarch packages it has installed.
set(TTY_HUB_SYSROOT "$ENV{TTY_HUB_SYSROOT}" CACHE PATH "The target's packages unpacked (dpkg-deb -x): its libraries are looked for there only")
set(_tty_hub_triple ${CMAKE_LIBRARY_ARCHITECTURE})
if(TTY_HUB_SYSROOT)
  get_filename_component(_tty_hub_root "${TTY_HUB_SYSROOT}" ABSOLUTE)
  if(NOT IS_DIRECTORY "${_tty_hub_root}/usr/lib/${_tty_hub_triple}")
    message(FATAL_ERROR "TTY_HUB_SYSROOT=${TTY_HUB_SYSROOT} holds no usr/lib/${_tty_hub_triple}: "
      "unpack the target's packages there (apt-get download libssl-dev:ARCH libssl3:ARCH; dpkg-deb -x)")
  endif()
  # try_compile projects read this file again, with the environment only;
  # CMakeLists.txt checks that libcrypto came from here.
  set(ENV{TTY_HUB_SYSROOT} "${_tty_hub_root}")
  set(TTY_HUB_SYSROOT "${_tty_hub_root}")
  # The cross compiler's own root stays: it holds the target's C library.
  set(CMAKE_FIND_ROOT_PATH "${_tty_hub_root}" /usr/${_tty_hub_triple})
  set(ENV{PKG_CONFIG_LIBDIR} "${_tty_hub_root}/usr/lib/${_tty_hub_triple}/pkgconfig:${_tty_hub_root}/usr/share/pkgconfig")
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "${_tty_hub_root}")
  # Debian keeps the headers that differ between architectures
  # (openssl/configuration.h) in /usr/include/TRIPLE, which the cross
  # compiler searches in the host's /usr only.
  set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES "${_tty_hub_root}/usr/include/${_tty_hub_triple}")
  set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES "${_tty_hub_root}/usr/include/${_tty_hub_triple}")
else()
  set(CMAKE_FIND_ROOT_PATH /usr/${_tty_hub_triple} /)
  set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${_tty_hub_triple}/pkgconfig:/usr/share/pkgconfig)
endif()
# The board finds its libraries in its own /usr/lib: a run path into a build
# host's folder would be of use only to someone who can create it there.
set(CMAKE_SKIP_BUILD_RPATH ON)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
