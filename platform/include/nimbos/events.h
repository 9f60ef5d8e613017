/* Events and jobs of the main loop. Key events come from the key router (keyrouter.h) while the
 * process is connected to it. Handlers and jobs run on the default main context, the one the
 * service's main loop runs (app.h); they may be added and deleted from any thread. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    ECORE_EVENT_KEY_DOWN = 1,  /* event: ecore_event_key_s */
    ECORE_EVENT_KEY_UP = 2,    /* event: ecore_event_key_s */
} ecore_event_type_e;

/* What an event handler returns. */
typedef enum {
    ECORE_EVENT_STOP = 0,      /* the event's later handlers are not called */
    ECORE_EVENT_CONTINUE = 1,  /* the event goes on to its next handler */
} ecore_event_result_e;

/* The device an input event came from. */
typedef struct {
    const char *name;  /* NULL when the device has no name */
} ecore_device_s;

/* A key event; valid only during the handler call. */
typedef struct {
    const char *keyname;           /* key symbol name, "XF86AudioRaiseVolume" */
    const ecore_device_s *device;  /* NULL when the source device is unknown */
} ecore_event_key_s;

typedef struct ecore_event_handler_s ecore_event_handler_s;
typedef struct ecore_job_s ecore_job_s;

/* type is an ecore_event_type_e; event points to the type's event struct. Returns an
 * ecore_event_result_e. */
typedef int (*ecore_event_handler_cb)(int type, void *event, void *user_data);
typedef void (*ecore_job_cb)(void *user_data);

/* Calls cb for every event of type, after the handlers added before it. Returns the handler,
 * or NULL for an unknown type or a null cb. */
ecore_event_handler_s *ecore_event_handler_add(int type, ecore_event_handler_cb cb, void *user_data);
/* Removes the handler; allowed inside a handler, also for itself. NULL is ignored. */
void ecore_event_handler_del(ecore_event_handler_s *handler);

/* Calls cb once, on a coming iteration of the main loop. Returns the job, or NULL for a null cb.
 * The job is valid until cb has returned or the job is deleted. */
ecore_job_s *ecore_job_add(ecore_job_cb cb, void *user_data);
/* Cancels the job; deleting it while its cb runs does nothing. NULL is ignored. */
void ecore_job_del(ecore_job_s *job);

#ifdef __cplusplus
}
#endif
