/* Makes a name for a message and reads the dates back. */
#include <stdio.h>
#include <stdlib.h>
#include <tessaly/mailstore.h>
#include <time.h>
#include <unistd.h>

int main(void) {
    char queue_id[32], name[256];
    /* The names' random parts come from both generators of the C library. */
    srand((unsigned)time(NULL) ^ (unsigned)getpid());
    srandom((unsigned)time(NULL) ^ (unsigned)getpid());
    if (tsl_gen_queue_id(NULL, queue_id, sizeof queue_id) == NULL) return 1;
    if (tsl_gen_mail_unique_name(1204, queue_id, name, sizeof name) == NULL) return 1;
    puts(name);
    printf("created %ld, received %ld\n", (long)tsl_get_mail_creation_date(name),
           (long)tsl_get_mail_received_date(name));
    return 0;
}
