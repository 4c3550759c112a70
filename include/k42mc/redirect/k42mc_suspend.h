/*
 * Sets the macros of redirect.h aside, as they are at this point, while a system header is read. Pairs
 * of this and k42mc_resume.h nest. No include guard: it is there to be read each time.
 */
#pragma push_macro("malloc")
#undef malloc
#pragma push_macro("calloc")
#undef calloc
#pragma push_macro("realloc")
#undef realloc
#pragma push_macro("reallocarray")
#undef reallocarray
#pragma push_macro("posix_memalign")
#undef posix_memalign
#pragma push_macro("aligned_alloc")
#undef aligned_alloc
#pragma push_macro("memalign")
#undef memalign
#pragma push_macro("valloc")
#undef valloc
#pragma push_macro("free")
#undef free
#pragma push_macro("cfree")
#undef cfree
#pragma push_macro("strdup")
#undef strdup
#pragma push_macro("strndup")
#undef strndup
#pragma push_macro("wcsdup")
#undef wcsdup
#pragma push_macro("asprintf")
#undef asprintf
#pragma push_macro("vasprintf")
#undef vasprintf
#pragma push_macro("getline")
#undef getline
#pragma push_macro("getdelim")
#undef getdelim
#pragma push_macro("open_memstream")
#undef open_memstream
#pragma push_macro("realpath")
#undef realpath
#pragma push_macro("getcwd")
#undef getcwd
