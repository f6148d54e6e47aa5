#include <tessaly/support.h>

#include "support/config_table.h"

void* kqf_query_table_head(void* handle) {
    auto* table = static_cast<kqf_table*>(handle);
    return table == nullptr ? nullptr : table->head(table);
}

void* kqf_query_get_next(void* handle) {
    auto* table = static_cast<kqf_table*>(handle);
    return table == nullptr ? nullptr : table->next(table);
}
