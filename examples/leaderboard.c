/* leaderboard.c -- a week's game leaderboard in a kelvane sorted set: a small, complete program to start from.
 *
 * Each player is a member of the set, their points are its score, and each carries a value: the player's team.
 * The board lives for a week: the write that creates the key gives it its time-to-live, later plain writes leave
 * that alone, and a write with COMMIT_TTL sets a new one.
 *
 *   leaderboard [HOST [PORT]]        a Redis 7 server; default 127.0.0.1 6379
 *
 * It replaces the key "leaderboard:week" on that server. Build it with the library (build/examples/leaderboard),
 * or against an installed kelvane: cc leaderboard.c $(pkg-config --cflags --libs kelvane).
 */
#include <kelvane.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define BOARD "leaderboard:week"
#define DAY (24 * 3600)
#define WEEK (7 * DAY)

static kv_mm *mm;          /* hands out every buffer the library returns; mm->release frees them */
static kv_client *client;

/* Every call answers a status. A real program decides call by call what a failure means; here anything but the
 * status expected ends the program. */
static void expect(int32_t status, int32_t expected, const char *call) {
    if (status != expected) {
        fprintf(stderr, "leaderboard: %s answered status %d\n", call, (int)status);
        exit(1);
    }
}

/* Members, values and the keys are byte strings with a length, not C strings: this passes a text's bytes. */
#define TEXT(s) (s), strlen(s)

/* A range read's results are arrays the library allocated, and so is every member and value in them: the caller
 * releases each item, then each array. */
static void release_range(void **members, size_t *members_len, double *scores, void **values,
                          size_t *values_len, size_t count) {
    for (size_t k = 0; k < count; ++k) {
        mm->release(members[k]);
        if (values != NULL) mm->release(values[k]);  /* NULL for a member without a value; release ignores it */
    }
    mm->release(members);
    mm->release(members_len);
    mm->release(scores);
    mm->release(values);
    mm->release(values_len);
}

static void add_players(void) {
    const char *names[] = {"ada", "bob", "cy", "dee", "eve"};
    const char *teams[] = {"red", "blue", "red", "green", "blue"};
    const double points[] = {120, 95, 130, 95, 80};
    size_t names_len[5], teams_len[5];
    for (int k = 0; k < 5; ++k) names_len[k] = strlen(names[k]), teams_len[k] = strlen(teams[k]);

    kv_del(client, TEXT(BOARD));  /* a fresh board; KV_NOTFOUND when there was none */
    /* Five players at once, in one round trip; the new key expires in a week. */
    expect(kv_zmaddval(client, TEXT(BOARD), points, names, 5, names_len, teams, teams_len, WEEK), KV_SUCCESS,
           "kv_zmaddval");
    /* One more. The key exists now, so this plain time-to-live changes nothing. */
    expect(kv_zaddval(client, TEXT(BOARD), 101, TEXT("fay"), TEXT("green"), WEEK), KV_SUCCESS, "kv_zaddval");

    uint32_t players = 0;
    expect(kv_zcard(client, TEXT(BOARD), &players), KV_SUCCESS, "kv_zcard");
    printf("%u players on %s\n", (unsigned)players, BOARD);
}

static void print_top(int32_t n) {
    void **members = NULL, **values = NULL;
    size_t *members_len = NULL, *values_len = NULL, count = 0;
    double *scores = NULL;
    /* Ranks 0..n-1 from the highest score. The optional result arrays follow the flags in a fixed order: scores,
     * then values and their lengths. */
    expect(kv_zrange(client, TEXT(BOARD), 0, n - 1, &members, &count, &members_len,
                     ZSET_REVERSE | ZSET_WITH_SCORES | ZSET_WITH_VALUES, &scores, &values, &values_len),
           KV_SUCCESS, "kv_zrange");
    printf("top %d:\n", (int)n);
    for (size_t k = 0; k < count; ++k) {
        printf("  %zu. %.*s (%.*s) %g\n", k + 1, (int)members_len[k], (const char *)members[k],
               (int)values_len[k], (const char *)values[k], scores[k]);
    }
    release_range(members, members_len, scores, values, values_len, count);
}

static void print_between(double low, double high) {
    void **members = NULL;
    size_t *members_len = NULL, count = 0;
    double *scores = NULL;
    /* Both bounds count: low <= points <= high, lowest first. */
    expect(kv_zrangebyscore(client, TEXT(BOARD), low, high, &members, &count, &members_len, ZSET_WITH_SCORES,
                            &scores),
           KV_SUCCESS, "kv_zrangebyscore");
    printf("%g to %g points:", low, high);
    for (size_t k = 0; k < count; ++k) {
        printf("%s %.*s %g", k ? "," : "", (int)members_len[k], (const char *)members[k], scores[k]);
    }
    printf("\n");
    release_range(members, members_len, scores, NULL, NULL, count);
}

static void print_player(const char *name) {
    double points = 0;
    char *team = NULL;
    size_t team_len = 0;
    uint32_t rank = 0, players = 0;
    expect(kv_zscore(client, TEXT(BOARD), TEXT(name), &points, &team, &team_len), KV_SUCCESS, "kv_zscore");
    expect(kv_zrank(client, TEXT(BOARD), TEXT(name), &rank, ZSET_REVERSE), KV_SUCCESS, "kv_zrank");
    expect(kv_zcard(client, TEXT(BOARD), &players), KV_SUCCESS, "kv_zcard");
    printf("%s plays for %.*s: %g points, place %u of %u\n", name, (int)team_len, team, points, (unsigned)rank + 1,
           (unsigned)players);
    mm->release(team);
}

/* The board's time-to-live in whole days, rounded up. */
static int32_t days_left(void) {
    int32_t seconds = 0;
    expect(kv_get_ttl(client, TEXT(BOARD), &seconds), KV_SUCCESS, "kv_get_ttl");
    return (seconds + DAY - 1) / DAY;
}

int main(int argc, char **argv) {
    const char *host = argc > 1 ? argv[1] : "127.0.0.1";
    const uint32_t port = argc > 2 ? (uint32_t)strtoul(argv[2], NULL, 10) : 6379;

    /* One memory manager (malloc and free, no byte limit) and one client: 1 s to connect, 2 s for an answer,
     * 2 connection attempts. */
    mm = kv_mm_create(NULL, NULL, NULL, 0);
    client = mm != NULL ? kv_client_create(1, 2, mm, 2) : NULL;
    if (client == NULL) {
        fprintf(stderr, "leaderboard: out of memory\n");
        return 1;
    }
    expect(kv_server_add(client, host, port, NULL), KV_SUCCESS, "kv_server_add");

    add_players();

    /* bob wins 30 points. kv_zincrby answers the new score. */
    double points = 0;
    expect(kv_zincrby(client, TEXT(BOARD), TEXT("bob"), 30, &points, WEEK), KV_SUCCESS, "kv_zincrby");
    printf("bob wins 30 points: %g\n", points);

    print_top(3);
    print_between(90, 110);
    print_player("dee");

    /* The week is extended by another: COMMIT_TTL replaces the key's time-to-live. */
    printf("the board expires in %d days\n", (int)days_left());
    expect(kv_zincrby(client, TEXT(BOARD), TEXT("eve"), 5, &points, COMMIT_TTL(2 * WEEK)), KV_SUCCESS,
           "kv_zincrby");
    printf("eve wins 5 points: %g; the board now expires in %d days\n", points, (int)days_left());

    /* A player leaves. Removing a member that is not there answers KV_NOTFOUND. */
    expect(kv_zrem(client, TEXT(BOARD), TEXT("eve")), KV_SUCCESS, "kv_zrem");
    expect(kv_zrem(client, TEXT(BOARD), TEXT("eve")), KV_NOTFOUND, "kv_zrem");
    uint32_t players = 0;
    expect(kv_zcard(client, TEXT(BOARD), &players), KV_SUCCESS, "kv_zcard");
    printf("eve leaves: %u players\n", (unsigned)players);

    /* The client goes before the memory manager it was created with. */
    kv_client_destroy(client);
    kv_mm_destroy(mm);
    return 0;
}
