// The interface between the two bundled libraries: what the handle of a table query looks like.
#ifndef TSMAIL_SUPPORT_CONFIG_TABLE_H
#define TSMAIL_SUPPORT_CONFIG_TABLE_H

// libkqfquery does not know the tables. It walks through these two functions, so that any library
// may provide a table.
struct kqf_table {
    void* (*head)(kqf_table*);
    void* (*next)(kqf_table*);
};

#endif
