/*
 * Forks while other threads run, as the agent does: three threads blocked
 * on a semaphore, one creating short-lived threads every millisecond, two
 * running `echo` through popen and the main thread running `true` through
 * system().  Prints "done" when every command came back.  Under an
 * emulator whose fork() can leave the child hanging it never ends
 * (target/qemu-fork-check.sh runs it with a time limit).
 */
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

enum { COMMANDS = 150 };

static sem_t never;

static void *blocked(void *arg)
{
    (void)arg;
    sem_wait(&never);
    return NULL;
}

static void *shortLived(void *arg)
{
    (void)arg;
    free(malloc(1000));
    return NULL;
}

static void *spawner(void *arg)
{
    (void)arg;
    pthread_attr_t detached;
    pthread_attr_init(&detached);
    pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
    for (;;) {
        pthread_t t;
        pthread_create(&t, &detached, shortLived, NULL);
        usleep(1000);
    }
    return NULL;
}

static void *forker(void *arg)
{
    (void)arg;
    for (int i = 0; i < COMMANDS; i++) {
        FILE *p = popen("echo x", "r");
        char line[16];
        if (p == NULL)
            continue;
        while (fgets(line, sizeof line, p) != NULL) {
        }
        pclose(p);
    }
    return NULL;
}

int main(void)
{
    sem_init(&never, 0, 0);
    pthread_t t;
    for (int i = 0; i < 3; i++)
        pthread_create(&t, NULL, blocked, NULL);
    pthread_create(&t, NULL, spawner, NULL);
    pthread_t forkers[2];
    for (int i = 0; i < 2; i++)
        pthread_create(&forkers[i], NULL, forker, NULL);
    for (int i = 0; i < COMMANDS; i++)
        system("true");
    for (int i = 0; i < 2; i++)
        pthread_join(forkers[i], NULL);
    puts("done");
    return 0;
}
