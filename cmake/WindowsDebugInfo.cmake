# Windows images ship as Windows teams ship them: no DWARF in the image, its CodeView debug
# information in a PDB beside it, found through the image's debug directory (an RSDS record that
# names the PDB by its file name only, so no build path is written into the image).
#
# The build is reproducible wherever the tree is checked out: the same commit gives the same
# images and PDBs, byte for byte, their GUID a hash of the content (/Brepro). So nothing in them
# may name the checkout: source paths are recorded under one fixed root, C:\kestrel\src (a
# debugger's source path maps it to a checkout), object files are named relative to it, and the
# compiler's command lines, full of absolute paths, are left out.
get_filename_component(KESTREL_SOURCE_ROOT ${CMAKE_CURRENT_LIST_DIR} DIRECTORY)
set(KESTREL_RECORDED_SOURCE_ROOT "C:/kestrel/src")
set(KESTREL_DEBUG_INFO_FLAGS
    "-gcodeview -gno-codeview-command-line -fdebug-compilation-dir=. -ffile-prefix-map=${KESTREL_SOURCE_ROOT}=${KESTREL_RECORDED_SOURCE_ROOT}")
set(KESTREL_PDB_LINK_FLAGS
    "-Wl,--pdb= -Wl,--Xlink=-pdbaltpath:%_PDB% -Wl,--Xlink=-Brepro -Wl,--Xlink=-pdbsourcepath:${KESTREL_RECORDED_SOURCE_ROOT}")
