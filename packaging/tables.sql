-- What wixl has no words for, said to the finished database: one statement a paragraph.
-- $(Version) is the product's.

-- A file with a version is replaced by one with a newer version, and compared by nothing else.
UPDATE `File` SET `Version` = '$(Version).0', `Language` = '1033' WHERE `File` = 'telvor.exe'

UPDATE `File` SET `Version` = '$(Version).0', `Language` = '1033' WHERE `File` = 'telvorctl.exe'

DELETE FROM `MsiFileHash` WHERE `File_` = 'telvor.exe'

DELETE FROM `MsiFileHash` WHERE `File_` = 'telvorctl.exe'

-- All is 64-bit (256). The seed of the policy is the administrator's: never replaced (128), never removed (16).
UPDATE `Component` SET `Attributes` = 256

UPDATE `Component` SET `Attributes` = 400 WHERE `Component` = 'Seed'

-- Without its service the product is none: an installation that cannot register it fails (32768).
UPDATE `ServiceInstall` SET `ErrorControl` = 32769

-- These run if the installation is rolled back (256), the last of them first.
UPDATE `CustomAction` SET `Type` = 3442 WHERE `Action` = 'StartAgain'

UPDATE `CustomAction` SET `Type` = 3442 WHERE `Action` = 'SetRecoveryAgain'

UPDATE `CustomAction` SET `Type` = 3442 WHERE `Action` = 'RecoverFromErrorsAgain'

-- The version itself is in the range of what is replaced (768: with its ends).
INSERT INTO `Upgrade` (`UpgradeCode`, `VersionMin`, `VersionMax`, `Attributes`, `ActionProperty`) VALUES ('{7F8B2C0A-53D1-5E4C-9B57-2A6D90C1E3F4}', '$(Version)', '$(Version)', 768, 'OTHERBUILD')

-- The folder of telvorctl.exe stands last on the machine's path, and leaves it with the product.
CREATE TABLE `Environment` (`Environment` CHAR(72) NOT NULL, `Name` CHAR(255) NOT NULL LOCALIZABLE, `Value` CHAR(255) LOCALIZABLE, `Component_` CHAR(72) NOT NULL PRIMARY KEY `Environment`)

INSERT INTO `Environment` (`Environment`, `Name`, `Value`, `Component_`) VALUES ('ProgramFolderOnPath', '=-*Path', '[~];[ProgramFolder]', 'CommandLine')

INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('RemoveEnvironmentStrings', 3300)

INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('WriteEnvironmentStrings', 5200)

-- STARTSERVICE=0 leaves it to the next start of Windows, as for a machine that is yet to be copied.
UPDATE `InstallExecuteSequence` SET `Condition` = 'VersionNT AND NOT STARTSERVICE = "0"' WHERE `Action` = 'StartServices'

-- WIREGUARDPROGRAM is set where WireGuard is.
CREATE TABLE `DrLocator` (`Signature_` CHAR(72) NOT NULL, `Parent` CHAR(72), `Path` CHAR(255), `Depth` INT PRIMARY KEY `Signature_`, `Parent`, `Path`)

INSERT INTO `Signature` (`Signature`, `FileName`) VALUES ('WireGuardAtItsPlace', 'wireguard.exe')

INSERT INTO `DrLocator` (`Signature_`, `Path`, `Depth`) VALUES ('WireGuardAtItsPlace', 'C:\Program Files\WireGuard', 0)

INSERT INTO `AppSearch` (`Property`, `Signature_`) VALUES ('WIREGUARDPROGRAM', 'WireGuardAtItsPlace')

INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('AppSearch', 50)

INSERT INTO `InstallUISequence` (`Action`, `Sequence`) VALUES ('AppSearch', 50)

-- What a person's installer may hand on to the one that runs with all rights.
UPDATE `Property` SET `Value` = 'ERASEDATA;NEWERVERSION;OLDERVERSION;OTHERBUILD;STARTSERVICE;WIREGUARDPROGRAM' WHERE `Property` = 'SecureCustomProperties'
