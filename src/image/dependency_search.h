// The search for a dependency by name: the folders a loader would try, and of the files found there the
// first that is no usable image or an image of the machine asked for. It reads images through ImageFacts.
// A folder named from a drive's or share's root (the root given, the folders of Path) is looked in through the
// process's listing of it (toolkit/folder_listing.h), so that a name it lacks costs no call to the system; the
// current folder, a relative one and a name a listing cannot answer for (a short name, a separator) are
// looked at on the disk as they are now.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

// A file of the name looked for that the search stepped over because it is an image of another machine.
struct passed_over {
    std::wstring path;
    DWORD machine = 0;
};

// Searches the current directory and then the folders of the Path variable (or only root, when it is
// not empty) for name, taking a file that is no usable image, or an image of the given machine
// (0 takes any). Folders, devices and pipes are stepped over; so is an image of another machine. The
// path found is normalised when the name climbs or holds forward slashes.
// current, when given, stands for the current directory; passedOver, when given, collects the images of
// another machine that the search stepped over before its answer.
bool FindDependency(const std::wstring& root, const std::wstring& name, DWORD machine, std::wstring& result,
                    const std::wstring* current = nullptr, std::vector<passed_over>* passedOver = nullptr);
