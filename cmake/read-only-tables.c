/* Makes read-only, before anything else of the program runs, what nobody writes to once its addresses are in: tables of
 * functions. Elsewhere whoever loads a program does it. A static program loads itself, and musl leaves this out then. */

#include <link.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

static int protect(struct dl_phdr_info* program, size_t size, void* unused)
{
    const uintptr_t page = (uintptr_t)sysconf(_SC_PAGESIZE);
    (void)size;
    (void)unused;
    for (unsigned i = 0; i < program->dlpi_phnum; ++i) {
        const ElfW(Phdr)* part = &program->dlpi_phdr[i];
        if (part->p_type != PT_GNU_RELRO)
            continue;
        const uintptr_t address = (uintptr_t)program->dlpi_addr + part->p_vaddr;
        const uintptr_t begin = address & ~(page - 1);
        const uintptr_t end = (address + part->p_memsz) & ~(page - 1);
        (void)mprotect((void*)begin, end - begin, PROT_READ); /* without it, all works as well */
    }
    return 1; /* the first one is the program itself */
}

__attribute__((constructor(101))) static void make_tables_read_only(void)
{
    (void)dl_iterate_phdr(protect, 0);
}
