#ifndef TSMAIL_TESTS_SUPPORT_IMPORTER_H
#define TSMAIL_TESTS_SUPPORT_IMPORTER_H

/* The answers of the program's functions. Those of the support library never give them. */
#define IMPORTED 4711
#define IMPORTED_FUNCTIONS 14

/* Calls each imported function. Returns the number of those that the program defines. *zone: the
 * pointer to the shared block, as this library sees it. */
__attribute__((visibility("default"))) int import_all(void** zone);

#endif
