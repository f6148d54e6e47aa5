#ifndef TSMAIL_TESTS_SUPPORT_IMPORTER_H
#define TSMAIL_TESTS_SUPPORT_IMPORTER_H

/* What the functions of the program answer, which those of the support library never do. */
#define IMPORTED 4711
#define IMPORTED_FUNCTIONS 13

/* Calls each imported function; returns how many of them were the program's. *zone: the pointer to
 * the shared block as this library sees it. */
__attribute__((visibility("default"))) int import_all(void** zone);

#endif
