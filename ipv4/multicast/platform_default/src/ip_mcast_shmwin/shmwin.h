// What the files of the window room share.
#ifndef IP6MC_SRC_IP_MCAST_SHMWIN_SHMWIN_H
#define IP6MC_SRC_IP_MCAST_SHMWIN_SHMWIN_H

// Empties the pool of freed blocks into the hook or the window service.
void ipmc_shmwin_init_buffer_pool(void);

#endif
