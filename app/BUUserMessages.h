// Every message the program shows a person, in one place: alerts and their explanations, the
// reasons of failed transactions, status lines, dialog texts and prompts, and the command line's
// errors. Each is written as the code fills it in: "%@", "%d", "%,lld" and "%1" stand for the
// values, "###" for the device name of the extra-items dialog's designed text.
//
// The manual's "Messages" part explains every one of them (what it means, what to do), and
// tests/user_messages_test.cpp checks that it does and that no message of the code is missing
// here. Header only and plain C strings, so that any layer may use it.
#pragma once

// X(name, text) for each message.
#define BU_USER_MESSAGES(X)                                                                                            \
    /* Alerts of the main window and their explanations. */                                                            \
    X(kBackupCanceledAlert, "Backup to %@ canceled.")                                                                  \
    X(kCanceledBeforeChanges, "The backup was canceled before any changes were made to the target device.")            \
    X(kBackupFailed, "Backup to %@ failed.")                                                                           \
    X(kCantBackupBecause, "I can't backup to \"%@\" because %@.")                                                      \
    X(kNotEnoughMemory, "there's not enough memory. Perhaps your source folders are too complex")                      \
    X(kCantExamineDisk, "I can't examine the contents of the disk")                                                    \
    X(kCantExamineFolder, "I can't examine the contents of the folder \"%@\" -- %@")                                   \
    X(kCantExamineProperties, "I can't examine the properties of \"%@\" -- %@")                                        \
    X(kReasonReadOnly, "it is mounted read-only")                                                                      \
    X(kReasonExtraItems, "its top level holds items that are not mirrors of the backup folders")                       \
    X(kReasonFolderNotMounted,                                                                                         \
        "the backup folder \"%@\" is where a disk is mounted (as /etc/fstab says), and that disk is not mounted")      \
    X(kReasonFolderOnDevice,                                                                                           \
        "the backup folder \"%@\" is on that device itself, and a backup must be kept apart from its original")        \
    X(kAnotherBackupRunning, "Another backup of the device \"%@\" is running.")                                        \
    X(kSeriousError, "The backup was stopped because a serious error occurred. %@")                                    \
    X(kDeviceEjected, "The device \"%@\" has been ejected.")                                                           \
    X(kFileNotCreated, "%@.\n\nThe file \"%@\" could not be created.")                                                 \
    X(kDeviceFull, "The device is full")                                                                               \
    X(kDeviceReadOnly, "The device is read-only")                                                                      \
    X(kFileGoneAtSource, "The file no longer exists at the source.")                                                   \
    X(kFolderGoneAtSource, "The folder no longer exists at the source.")                                               \
    X(kNameNotHeld, "The device can't hold the name \"%@\".")                                                          \
    X(kNoPermissionInDeviceFolder, "You don't have permission to write in the folder \"%@\" on the device.")           \
    X(kOwnerRefused, "The device refused the owner of the item (%1)")                                                  \
    X(kOldCopyRemovedFirst, "The old copy was removed first, because the device could not hold both.")                 \
    X(kFileUnreadable, "The file can't be read at the source (%@).")                                                   \
    X(kFolderUnreadable, "The folder can't be read at the source (%@).")                                               \
    X(kFileUnreadableKept, "The file can't be read at the source (%@). Its copy on the device is kept.")               \
    X(kFolderUnreadableKept, "The folder can't be read at the source (%@). Its copy on the device is kept.")           \
    X(kFolderNotCreated, "%@\n\nThe folder \"%@\" could not be created.")                                              \
    X(kDataNotWritten, "%@.\n\nThe data could not be written to the device \"%@\".")                                   \
    X(kLargeDeletion, "This backup would delete %,lld of the %,lld items on \"%@\".")                                  \
    X(kLargeDeletionExplanation,                                                                                       \
        "That is half or more of what the backup device holds. It happens when a backup folder was emptied or "        \
        "renamed, or lies on a disk that is not mounted. Check the transactions before you go on.")                    \
    X(kLargeDeletionTurnOff, " You can turn this question off in the Edit menu.")                                      \
    X(kLargeDeletionDetails, "They take %@ on the device. Most go from %@.")                                           \
    X(kLargeDeletionFolder, "\"%@\" (%,lld)")                                                                          \
    X(kLargeDeletionIgnored,                                                                                           \
        " %,lld of them are still in your backup folders and are deleted because your ignore rules leave them out "    \
        "now.")                                                                                                        \
    X(kEmptiedFolder,                                                                                                  \
        "The backup folder \"%@\" is empty, so this backup would delete everything in its mirror on \"%@\".")          \
    X(kEmptiedFolderExplanation,                                                                                       \
        "A folder where a disk or a network share is mounted looks empty while that disk is not mounted. Check the "   \
        "folder before you go on.")                                                                                    \
    X(kEmptiedFolderReview, " Review keeps the list of transactions in the window.")                                   \
    X(kLargeDeletionReview,                                                                                            \
        " Review keeps the list of transactions in the window. You can turn this question off in the Edit menu.")      \
    X(kNotEnoughSpace,                                                                                                 \
        "The backup needs %@ on the device \"%@\", which has only %@ free. Nothing was changed on the device.")        \
    X(kStopAndQuit, "A backup to \"%@\" is running. Stop it and quit?")                                                \
    X(kStopAndQuitExplanation,                                                                                         \
        "What was copied so far stays on the device, and a file being updated keeps its old copy. The window closes "  \
        "once the backup has stopped.")                                                                                \
    X(kStopAndQuitButton, "Stop and Quit")                                                                             \
    X(kKeepRunningButton, "Keep Running")                                                                              \
    X(kCantOpenAddress, "I can't open %@.")                                                                            \
    X(kNoBrowser, "No web browser is set up to open it. Please open the address in your browser.")                     \
    X(kCantShowInFileManager, "I can't show \"%@\" in a file manager.")                                                \
    X(kNoFileManager, "No file manager is set up to open folders on this computer.")                                   \
    X(kCantEmailCopyLogsMenu,                                                                                          \
        "I can't send email to Tannerwick. Please copy the logs instead (Copy Logs in the Help menu) and email them "  \
        "to %@.")                                                                                                      \
    X(kCantAddFolder, "Can't add a backup folder.")                                                                    \
    X(kFolderNameTaken,                                                                                                \
        "A folder named \"%@\" is already in the backup list. You can't have two folders with the same name on the "   \
        "backup device.")                                                                                              \
    X(kFolderInsideBackupFolder, "\"%@\" is inside the backup folder \"%@\".")                                         \
    X(kFolderHoldsBackupFolder, "\"%@\" holds the backup folder \"%@\".")                                              \
    X(kNestedFolderQuestion,                                                                                           \
        "Its files would be on the backup device twice, once in each mirror, and take twice the room. Add it all "     \
        "the same?")                                                                                                   \
    X(kDontAddButton, "Don't Add")                                                                                     \
    X(kNoLogInformation, "No log information.")                                                                        \
    X(kNoLogsFound, "I could not find any crash reports or log entries for %@.")                                       \
    X(kContactFailed, "Contact failed.")                                                                               \
    X(kCantEmailCopyLogs,                                                                                              \
        "I can't send email to Tannerwick. Please copy the logs instead (hold down the option key) and email them "    \
        "to %@.")                                                                                                      \
    X(kCantEmailVisitWebsite, "I can't send email to Tannerwick. Please visit our website, %@, or send email to %@.")  \
    X(kDontShowAgain, "Don't show this message again")                                                                 \
    /* The extra-items dialog (its text is in resources/ExtraStuffDialog.ui) and the command line's. */                \
    X(kExtraItemsTitle, "Unexpected Items on the Backup Device")                                                       \
    X(kExtraItemsDialog,                                                                                               \
        "The backup device \"###\" holds the items listed below at its top level. They are not mirrors of your "       \
        "backup folders, so I will not back up to this device: a backup makes the device an exact mirror of your "     \
        "folders, and I never delete anything I did not put there.\n\nMove these items into a folder of their own "    \
        "elsewhere, remove them, or add the folders they mirror to your backup folders. Then start the backup "        \
        "again.")                                                                                                      \
    X(kExtraItemsWarning,                                                                                              \
        "The backup device \"###\" holds items at its top level that are not mirrors of your backup folders. The "     \
        "top level of a backup device may hold only the folders that mirror your backup folders, so that a backup "    \
        "never deletes something that is not a copy of your files. Move these items elsewhere or remove them, then "   \
        "start the backup again:")                                                                                     \
    /* Reasons of failed transactions that are the program's own (the others are the system's). */                     \
    X(kCaseCollision, "The device ignores case, so \"%@\" and \"%@\" can't both be kept on it.")                       \
    X(kOtherFileSystem,                                                                                                \
        "Another file system is mounted at this place on the device, and the backup does not enter it")                \
    X(kFileChangedWhileCopied, "The file changed while it was copied")                                                 \
    X(kFileTooBigForDevice, "The device's file system can't hold files of 4 GB or more")                               \
    X(kAttributeNotKept, "The device can't keep the attribute \"%1\" (%2)")                                            \
    X(kNotRegularFile, "It is not a regular file")                                                                     \
    X(kUnknownError, "An unknown error occurred.")                                                                     \
    X(kInternalError, "Internal logic error")                                                                          \
    /* Status lines, and the device list's job column. */                                                              \
    X(kAnalyzing, "Analyzing...")                                                                                      \
    X(kAnalysisComplete, "Analysis complete")                                                                          \
    X(kAnalysisCompleteCount, "Analysis complete: %,lld %@, %@ to copy")                                               \
    X(kAnalysisVerdict, "Analysis complete: %,lld to copy (%@), %,lld to update, %,lld to delete.")                    \
    X(kVerdictFits, " It fits on %@: %@ needed, %@ free.")                                                             \
    X(kVerdictDoesNotFit, " It does not fit on %@: %@ needed, only %@ free.")                                          \
    X(kByteCount, "%lld bytes")                                                                                        \
    X(kOneByte, "1 byte")                                                                                              \
    X(kLocationSource, "Source: %@")                                                                                   \
    X(kLocationDevice, "Device: %@")                                                                                   \
    X(kNotTried, ", %,lld not tried")                                                                                  \
    X(kLogsCopied, "The logs are on the clipboard")                                                                    \
    X(kHintFolders, "Add the folders to back up: choose Add under the list of backup folders.")                        \
    X(kHintDevice, "Pick the backup device in the list on the left.")                                                  \
    X(kTransactionsFor, "Transactions for %@ (not the selected device)")                                               \
    X(kHintNoDevice,                                                                                                   \
        "No backup device is mounted. Plug in a disk and mount it; devices are looked for in %@ (set "                 \
        "TANNER_VOLUMES_ROOT to look elsewhere).")                                                                     \
    X(kUpToDate, "The backup device is up to date")                                                                    \
    X(kRateAndTimeLeft, "%@ per second, %@ left")                                                                      \
    X(kLessThanAMinute, "less than a minute")                                                                          \
    X(kAboutAMinute, "about a minute")                                                                                 \
    X(kAboutMinutes, "about %d minutes")                                                                               \
    X(kAboutHours, "about %d h %02d min")                                                                              \
    X(kCanceling, "Canceling...")                                                                                      \
    X(kBackupSucceeded, "Backup succeeded")                                                                            \
    X(kOneActionFailed, "1 backup action failed")                                                                      \
    X(kActionsFailed, "%d backup actions failed")                                                                      \
    X(kBackupCanceled, "Backup canceled")                                                                              \
    X(kDeviceAnalyzing, "Analyzing")                                                                                   \
    X(kDeviceInProgress, "In progress")                                                                                \
    /* Prompts of the file choosers. */                                                                                \
    X(kChooseBackupFolders, "Select one or more folders to back up")                                                   \
    X(kChooseFolderExample, "Select a folder as an example to be ignored")                                             \
    X(kChooseFileExample, "Select a file as an example to be ignored")                                                 \
    X(kNotFound, "Not found")                                                                                          \
    X(kOneTopic, "1 topic")                                                                                            \
    X(kTopicsCount, "%1 topics")                                                                                       \
    X(kChooseHelpCopyFolder, "Select a folder in which to save a copy of the help file")                               \
    X(kChooseExtensionExample, "Select a file as an example of an extension to be ignored")                            \
    /* The command line. */                                                                                            \
    X(kUnknownCommand, "unknown command \"%1\"; try tanner-backup --help")                                             \
    X(kFoldersAddNeedsFolder, "folders add needs at least one folder")                                                 \
    X(kNotAFolder, "\"%1\" is not a folder.")                                                                          \
    X(kRootFolderHasNoName, "The root folder has no name to mirror on the backup device.")                             \
    X(kFoldersRemoveNeedsOne, "folders remove needs one folder name or path")                                          \
    X(kNoSuchBackupFolder, "There is no backup folder \"%1\".")                                                        \
    X(kUnknownFoldersCommand, "unknown folders command \"%1\"; try tanner-backup --help")                              \
    X(kNotARule, "\"%1\" is not a rule.")                                                                              \
    X(kRuleFormat,                                                                                                     \
        "A rule is a digit 0 or 1 (1: look at the extension), a digit 0 to 3 (is, contains, starts with, ends with) "  \
        "and a name, e.g. \"10tmp\".")                                                                                 \
    X(kRuleCommandNeedsOne, "a rule command needs one rule")                                                           \
    X(kNoSuchRule, "There is no rule %1.")                                                                             \
    X(kRulesUsage,                                                                                                     \
        "rules needs folders, files, add-folder, add-file, remove-folder, remove-file or add-defaults; try "           \
        "tanner-backup --help")                                                                                        \
    X(kDevicesUsage, "devices takes no arguments but --watch")                                                         \
    X(kLogsUsage, "logs takes no arguments")                                                                           \
    X(kNoBackupFolders, "There are no backup folders.")                                                                \
    X(kAddFolderHint, "Add one with: tanner-backup folders add PATH")                                                  \
    X(kAnalyzeUsage, "%@ takes one device name and --json")                                                            \
    X(kBackupUsage, "%@ takes one device name, --json and --yes")                                                      \
    X(kNeedsDevice, "%@ needs the name of a device (see: tanner-backup devices)")                                      \
    X(kAnalysisSummary, "%,d actions, %@ to copy")                                                                     \
    X(kLargeDeletionYes, " Run the backup again with --yes to go ahead, or look first with: tanner-backup analyze ")   \
    X(kSettingsNotUsed, "The settings file %@ is not used: %@.")                                                       \
    X(kSettingsNotUsedHint, "Nothing is read from it or saved to it.")                                                 \
    X(kSettingsNotRegular, "it is not a regular file")                                                                 \
    X(kSettingsLinkToNothing, "it is a link to nothing")                                                               \
    X(kSettingsTooLarge, "it is larger than a settings file can be")                                                   \
    X(kSettingsNotSaved, "Can't save the settings to %@: %@.")                                                         \
    X(kSettingsNotWritten, "the new settings could not be written")                                                    \
    X(kSettingsNotReadBack, "the new settings could not be read back")                                                 \
    X(kSettingsOriginalNotKept, "the damaged original could not be kept aside")                                        \
    X(kFolderHoldsDevices, "It holds the backup devices.")                                                             \
    X(kFolderIsDevice, "It is a backup device.")                                                                       \
    X(kDeviceFolderNamed, "\"%@\" is the folder of the device \"%@\".")                                                \
    X(kNameTheDevice, "Name the device instead: tanner-backup %@ %@")                                                  \
    X(kPathIsNotDevice, "\"%@\" is a path, not the name of a device.")                                                 \
    X(kDevicesAreNamed, "Devices are named as tanner-backup devices lists them.")                                      \
    X(kCantWriteOutput, "Can't write the output: %1")                                                                  \
    X(kFolderNotFound, " (not found)")                                                                                 \
    X(kWindowCantOpen,                                                                                                 \
        "tanner-backup: the window can't be opened -- its part \"%s\" could not be loaded: %s.\nCommands still work: " \
        "tanner-backup --help\n")                                                                                      \
    X(kWindowPartMissing, "it is missing")                                                                             \
    /* The history of runs: the history command, the History window, the problem report. */                            \
    X(kHistoryUsage, "history takes one device name and --json")                                                       \
    X(kNoRuns, "No runs on record")                                                                                    \
    X(kNoRunsOfDevice, "No runs to \"%@\" on record")                                                                  \
    X(kHistoryDamaged, "The history of runs %@ could not be read whole: %@.")                                          \
    X(kHistoryDamagedShown, "What could be read is shown; the file is kept aside when the next run is recorded.")      \
    X(kHistoryNotJson, "it is not JSON (%@ at byte %lld)")                                                             \
    X(kHistoryNoRuns, "it holds no list of runs")                                                                      \
    X(kHistoryRunsUnusable, "%lld of its runs could not be read")                                                      \
    X(kNoRunsYet, "No analysis or backup is on record yet.")                                                           \
    X(kNoRunsOfDeviceYet, "No analysis or backup of \"%@\" is on record.")                                             \
    X(kFailuresNotKept,                                                                                                \
        "Only the last run of a device keeps its list of failed actions; the program's log has them (Help > Copy "     \
        "Logs).")                                                                                                      \
    X(kFailuresCut, "The first %,lld failed actions are listed; the program's log has the rest (Help > Copy Logs).")   \
    X(kExtraItemsRecorded, "The device holds items at its top level that are not mirrors of the backup folders: %@")   \
    /* Update and news checks. */                                                                                      \
    X(kUpdateCheckFailed, "The update check failed.")                                                                  \
    X(kNewsCheckFailed, "The news check failed.")                                                                      \
    X(kNewestVersion, "%1 %2 is the newest version.")                                                                  \
    X(kUpdateAvailable, "%1 %2 is available (this is %3): %4")                                                         \
    X(kNoNews, "The news page holds no news.")                                                                         \
    X(kNoNewsSince, "There is no news since %1.")                                                                      \
    X(kTakesOnlyJson, "%1 takes only --json")                                                                          \
    X(kNoDownloadFolder, "I can't find or create the download folder.")                                                \
    X(kCantWriteDownload, "I can't write the downloaded file.")                                                        \
    X(kDownloadCanceled, "The download was canceled.")                                                                 \
    X(kServerTimeout, "The server did not answer in time.")                                                            \
    X(kPageTooLarge, "The page is larger than a page of the site can be.")                                             \
    X(kMoreThanAnnounced, "The server sent more than the size it announced.")                                          \
    X(kCheckNowButton, "Check Now")                                                                                    \
    X(kAlreadyOpen, "Tanner Backup is already open; its window was brought to the front.")                             \
    /* Help. */                                                                                                        \
    X(kNoTopicBegins, "No topic begins with \"%1\".")                                                                  \
    X(kNoTopicHolds, "No topic holds all of \"%1\".")                                                                  \
    X(kSeeTheTopics, "See the topics with: tanner-backup help")                                                        \
    X(kHelpUsage, "help takes a topic, --search WORDS, --file PATH or --check PATH [--json]")                          \
    X(kHelpCheckUsage, "usage: tanner-backup help --check PATH [--json]")                                              \
    X(kHelpEngineNotReady, "The help engine could not be set up.")                                                     \
    X(kHelpCopyNotSaved, "The copy of the help could not be saved.")                                                   \
    X(kHelpCopyWhyNot, "I can't save a copy of the help in \"%@\" because %@.")                                        \
    X(kHelpCopyFolderNotCreated, "the folder \"%1\" can't be created")                                                 \
    X(kHelpCopyLinkNotCopied, "the link \"%1\" can't be copied")                                                       \
    X(kHelpCopyItemNotCopied, "\"%1\" can't be copied: %2")                                                            \
    X(kHelpPackageMissing, "the help package \"%1\" is missing")                                                       \
    X(kHelpCopyExists, "\"%1\" already exists")                                                                        \
    X(kHelpWindowUsage, "tanner-backup: usage: tanner-backup help --window [--file PATH]")                             \
    X(kHelpWindowCantRead, "tanner-backup: Can't read help file: %s%s")                                                \
    X(kNoSpeechEngine,                                                                                                 \
        "Speaking needs a speech engine, and none is installed (install speech-dispatcher or Qt's "                    \
        "flite speech plug-in).")                                                                                      \
    X(kSpeechEngineNotStarted,                                                                                         \
        "Speaking needs a speech engine, and none of the installed ones (%1) could be "                                \
        "started.")                                                                                                    \
    X(kSpeechEngineFailed, "the speech engine failed")                                                                 \
    X(kCantReadHelpFile, "Can't read help file: %@")                                                                   \
    X(kDocumentDamaged, "The document has been damaged.")                                                              \
    X(kFileNotRegular, "It is not a regular file.")                                                                    \
    X(kFileTooLarge, "It is larger than %1 bytes.")                                                                    \
    X(kLaterVersion,                                                                                                   \
        "This file was created by a later version of Tanner Write. Please visit our website to upgrade the app.")      \
    X(kNoMemoryForText, "I can't allocate memory for the document's text.")                                            \
    X(kNotXml, "I don't understand the file format")                                                                   \
    X(kInvalidXml, "this is not a valid XML file (offset 0x%x)")                                                       \
    X(kMalformedCdata, "malformed CDATA at offset 0x%x")

namespace BUUserMessages {

#define BU_USER_MESSAGE_CONSTANT(name, text) inline constexpr char name[] = text;
BU_USER_MESSAGES(BU_USER_MESSAGE_CONSTANT)
#undef BU_USER_MESSAGE_CONSTANT

struct Entry {
    const char *name;
    const char *text;
};

#define BU_USER_MESSAGE_ENTRY(name, text) {#name, text},
inline constexpr Entry kAll[] = {BU_USER_MESSAGES(BU_USER_MESSAGE_ENTRY)};
#undef BU_USER_MESSAGE_ENTRY

} // namespace BUUserMessages
