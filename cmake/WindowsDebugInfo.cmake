# Windows images ship as Windows teams ship them: no DWARF in the image, its CodeView debug
# information in a PDB beside it, found through the image's debug directory (an RSDS record that
# names the PDB by its file name only, so no build path is written into the image). The link is
# reproducible: the same inputs give the same image and PDB, their GUID a hash of the content.
set(KESTREL_DEBUG_INFO_FLAGS "-gcodeview")
set(KESTREL_PDB_LINK_FLAGS "-Wl,--pdb= -Wl,--Xlink=-pdbaltpath:%_PDB% -Wl,--Xlink=-Brepro")
