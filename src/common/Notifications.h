#pragma once

// Every distributed notification exchanged between the pane and the helper.
namespace Notifications {

// To the helper.
inline constexpr const char *Version = "com.quillfen.vantor.version"; // {"version": string}
inline constexpr const char *Visible = "com.quillfen.vantor.visible";
inline constexpr const char *Active = "com.quillfen.vantor.active";
inline constexpr const char *HelperShouldQuit = "vantorHelperShouldQuit";
inline constexpr const char *HelperShouldKeepAlive = "vantorHelperShouldKeepAlive";
inline constexpr const char *HelperShouldCheckForUpdates = "vantorHelperShouldCheckForUpdates";
inline constexpr const char *HelperEnableUpdates = "vantorHelperEnableUpdates";
inline constexpr const char *HelperDisableUpdates = "vantorHelperDisableUpdates";
inline constexpr const char *FoldersChanged = "vantorFoldersChanged";
inline constexpr const char *Folders = "com.quillfen.vantor.folders"; // {"foldersToAdd"|"foldersToRemove": [string]}

// From the helper.
inline constexpr const char *FoldersRenamed = "vantorFoldersRenamed";
inline constexpr const char *SavingsChanged = "vantorSavingsChanged";
inline constexpr const char *ShowHistory = "showHistory";
inline constexpr const char *RestartingAfterUpdate = "vantorRestartingAfterUpdate";
inline constexpr const char *Quit = "com.quillfen.vantor.quit";

// User-information keys.
inline constexpr const char *VersionKey = "version";
inline constexpr const char *FoldersToAddKey = "foldersToAdd";
inline constexpr const char *FoldersToRemoveKey = "foldersToRemove";

} // namespace Notifications
