// Host downloads on libcurl: what the plug-in's Java class does on Android. Segments are fetched one
// after another on a worker thread and reported through NotifyDownloadComplete on a callback thread
// of their own; the playlist is fetched on the caller's thread.
//
// Files go under a root folder: $OZM_DOWNLOAD_DIR when set, else <temp dir>/ozm-downloads-<pid>.
// A segment lands in <root>/<playlistName>-<handle>/<file name of uri>; a playlist in
// <root>/<file name>-XXXXXX<extension>. Whoever was given a file deletes it; the files of failed or
// cancelled transfers are deleted here.
#pragma once

#include <string>

namespace OzmPlatform {

// Queues the download of `url` and returns at once. Its end (the local path, or null when it
// failed) is reported with `nativeHandle`, on the callback thread, in request order.
void HostDownloadFileFromUrl(const std::string& playlistName, const std::string& url, const std::string& uri,
                             void* nativeHandle);
// Downloads `url` on the calling thread; the local path, or empty when it failed.
std::string HostDownloadFileFromUrlBlocking(const std::string& url);
// Drops the queued transfers of `nativeHandle` and aborts its running one. When it returns, no
// completion for that handle is being reported or will be (unless it is called from inside that
// very report).
void HostCancelDownload(void* nativeHandle);

}  // namespace OzmPlatform
