#include "services/window/window.h"

extern "C" const char *shmwin_strerror(cerrno code) {
    switch (code) {
        case SHMWIN_ERR_REPAIR:
            return "Window unusable and mapped by nobody: reset it and open again";
        case SHMWIN_ERR_NO_WINDOW:
            return "No such window";
        case SHMWIN_ERR_HALF_MADE:
            return "Window is being made or reset";
        case SHMWIN_ERR_DAMAGED:
            return "Window is damaged";
        case SHMWIN_ERR_LAYOUT:
            return "Window has another record layout";
        case SHMWIN_ERR_BASE:
            return "Window was made for another base address";
        case SHMWIN_ERR_BASE_TAKEN:
            return "Address range of the window is taken in this process";
        case SHMWIN_ERR_PERMISSION:
            return "Window file or folder belongs to another user or is not accessible";
        case SHMWIN_ERR_FILE_TYPE:
            return "Window file is a symbolic link or not a regular file";
        case SHMWIN_ERR_SPACE:
            return "Window is full";
        case SHMWIN_ERR_BAD_ID:
            return "No open window has this id";
        case SHMWIN_ERR_NOT_OWNER:
            return "Only the owner of the window may do this";
        case SHMWIN_ERR_BAD_BLOCK:
            return "Not a live block of the window";
        case SHMWIN_ERR_PEERS_FULL:
            return "Too many processes or readers";
        case SHMWIN_ERR_IN_USE:
            return "Another process is in the middle of a change";
        default:
            return nullptr;
    }
}
