/* Embeds the data plane's program, compiled for the kernel, in this executable. KELIM_PLANE_OBJECT is its object file. */
__asm__(
    ".section .rodata\n"
    ".balign 8\n"
    ".global kelim_plane_object\n"
    "kelim_plane_object: .incbin \"" KELIM_PLANE_OBJECT
    "\"\n"
    ".global kelim_plane_object_end\n"
    "kelim_plane_object_end: .byte 0\n"
    ".previous\n");
