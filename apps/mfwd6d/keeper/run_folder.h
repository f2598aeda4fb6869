// The run dir as the keeper has it: one keeper at a time, and a keeper that was left with the
// sockets only hands them over to the next one.
#ifndef MFWD6_APPS_MFWD6D_KEEPER_RUN_FOLDER_H
#define MFWD6_APPS_MFWD6D_KEEPER_RUN_FOLDER_H

#include <string>

#include "apps/mfwd6d/keeper/held_sockets.h"
#include "apps/mfwd6d/owner/outcome.h"

namespace mfwd6::daemon {

class run_folder {
  public:
    explicit run_folder(std::string path) : path_(std::move(path)) {}
    ~run_folder();
    run_folder(const run_folder &) = delete;
    run_folder &operator=(const run_folder &) = delete;

    // Makes the folder where only its last part is missing, and takes it. A keeper that holds only
    // sockets is asked for them and ends; EBUSY: another keeper runs here.
    outcome take(held_sockets *sockets);

    // The command socket: 0600, listening. A file left by another keeper is replaced.
    outcome listen_for_commands(int *fd) const;

    // To be polled: a successor asks there. -1 before `take`.
    int successor_fd() const { return door_; }
    // Answers a successor that has come: hands the sockets over, if `may_go`, and then this keeper
    // has to end at once. True when it was handed over.
    bool answer_successor(bool may_go, const held_sockets &sockets) const;

  private:
    outcome make_folder() const;
    outcome lock();
    outcome take_over(held_sockets *sockets);
    outcome open_door();
    std::string file(const char *name) const { return path_ + "/" + name; }

    std::string path_;
    int lock_ = -1;
    int door_ = -1;
};

}  // namespace mfwd6::daemon

#endif
