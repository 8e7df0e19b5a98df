/* consumer.c -- a program built against an installed kelvane, as a user's would be: it includes <kelvane.h>,
 * links -lkelvane and calls into the library without a server. Prints what voidtostring made of its bytes. */
#include <kelvane.h>
#include <stdio.h>
#include <string.h>

int main(void) {
    kv_mm *mm = kv_mm_create(0, 0, 0, 0);
    kv_client *client = kv_client_create(1, 2, mm, 2);
    if (mm == NULL || client == NULL) {
        fprintf(stderr, "consumer: no memory manager or client\n");
        return 1;
    }
    char *text = voidtostring("installed", strlen("installed"), mm);
    if (text == NULL) {
        fprintf(stderr, "consumer: voidtostring failed\n");
        return 1;
    }
    printf("%s\n", text);
    mm->release(text);
    kv_client_destroy(client);
    kv_mm_destroy(mm);
    return 0;
}
