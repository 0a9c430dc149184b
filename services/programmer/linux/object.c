/* The program of the data plane, compiled for the kernel, as bytes of this one. KELIM_PLANE_OBJECT is its file. */
__asm__(
    ".section .rodata\n"
    ".balign 8\n"
    ".global kelim_plane_object\n"
    "kelim_plane_object: .incbin \"" KELIM_PLANE_OBJECT
    "\"\n"
    ".global kelim_plane_object_end\n"
    "kelim_plane_object_end: .byte 0\n"
    ".previous\n");
