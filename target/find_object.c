/* SPDX-License-Identifier: MIT */
/*
 * Makes C++ exceptions work with musl. The unwinder of Debian's cross compiler was configured for
 * another C library, and calls this function of that library to find the loaded object that
 * contains an address, and its unwind table. Here both are found through the program headers. Only
 * C++ programs need it: the tests, not the library.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <link.h>
#include <stddef.h>
#include <stdint.h>

#ifndef __GLIBC__
struct dl_find_object {
    unsigned long long dlfo_flags;
    void *dlfo_map_start;
    void *dlfo_map_end;
    struct link_map *dlfo_link_map;
    void *dlfo_eh_frame;
    unsigned long long reserved[7];
};
int _dl_find_object(void *code, struct dl_find_object *found);
#endif

struct search {
    uintptr_t code;
    struct dl_find_object *found;
};

static int search_object(struct dl_phdr_info *object, size_t size, void *argument) {
    const struct search *const search = argument;
    const ElfW(Phdr) *unwind_table = NULL;
    int contains_code = 0;
    (void)size;
    for (size_t i = 0; i < object->dlpi_phnum; ++i) {
        const ElfW(Phdr) *const header = &object->dlpi_phdr[i];
        const uintptr_t start = object->dlpi_addr + header->p_vaddr;
        if (header->p_type == PT_GNU_EH_FRAME)
            unwind_table = header;
        if (header->p_type == PT_LOAD && search->code - start < header->p_memsz) {
            contains_code = 1;
            search->found->dlfo_map_start = (void *)start;
            search->found->dlfo_map_end = (void *)(start + header->p_memsz);
        }
    }
    if (!contains_code || unwind_table == NULL)
        return 0;
    search->found->dlfo_flags = 0;
    search->found->dlfo_link_map = NULL;
    search->found->dlfo_eh_frame = (void *)(object->dlpi_addr + unwind_table->p_vaddr);
    return 1;
}

int _dl_find_object(void *code, struct dl_find_object *found) {
    struct search search = {(uintptr_t)code, found};
    return dl_iterate_phdr(search_object, &search) != 0 ? 0 : -1;
}
