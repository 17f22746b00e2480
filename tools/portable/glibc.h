/* Included ahead of every source of a portable artifact. Debian 11's glibc is 2.31, and some of its functions
   came with later versions of their symbols than systems have that are older: the same functions but for how
   they report errors of range, which nobody here asks for. The linker is told to take the first versions,
   those of the C library's whole life on a processor. */
#ifndef __ASSEMBLER__
#ifdef __x86_64__
#define FIRST_GLIBC "GLIBC_2.2.5"
#else
#define FIRST_GLIBC "GLIBC_2.17"
#endif
#define FIRST_VERSION_OF(name, first) __asm__(".symver " #name "," #first "@" FIRST_GLIBC)
FIRST_VERSION_OF(exp, exp);
FIRST_VERSION_OF(exp2, exp2);
FIRST_VERSION_OF(log, log);
FIRST_VERSION_OF(log2, log2);
FIRST_VERSION_OF(pow, pow);
FIRST_VERSION_OF(expf, expf);
FIRST_VERSION_OF(exp2f, exp2f);
FIRST_VERSION_OF(logf, logf);
FIRST_VERSION_OF(log2f, log2f);
FIRST_VERSION_OF(powf, powf);
FIRST_VERSION_OF(fcntl64, fcntl); /* the same one where long has 64 bits */
#endif
