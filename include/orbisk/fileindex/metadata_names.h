// The names of the metadata fields that documents carry, shared with the indexing daemon and the content extractor.
#pragma once

namespace orbisk::fileindex::elastic {

// Some spellings differ from what one expects and from the index schema: NIMOStateOrProvince without "MD",
// NIMOMDRecodingDate, and the leading underscore of three names. They are part of the data of existing indexes.
inline constexpr char kMDAttributeChangeDate[] = "NIMOMDAttributeChangeDate";
inline constexpr char kMDAudiences[] = "NIMOMDAudiences";
inline constexpr char kMDAuthors[] = "NIMOMDAuthors";
inline constexpr char kMDAuthorAddresses[] = "NIMOMDAuthorAddresses";
inline constexpr char kMDCity[] = "NIMOMDCity";
inline constexpr char kMDComment[] = "NIMOMDComment";
inline constexpr char kMDContactKeywords[] = "NIMOMDContactKeywords";
inline constexpr char kMDContentCreationDate[] = "NIMOMDContentCreationDate";
inline constexpr char kMDContentModificationDate[] = "NIMOMDContentModificationDate";
inline constexpr char kMDContentType[] = "NIMOMDContentType";
inline constexpr char kMDContentTypeTree[] = "NIMOMDContentTypeTree";
inline constexpr char kMDContributors[] = "NIMOMDContributors";
inline constexpr char kMDCopyright[] = "NIMOMDCopyright";
inline constexpr char kMDCountry[] = "NIMOMDCountry";
inline constexpr char kMDCoverage[] = "NIMOMDCoverage";
inline constexpr char kMDCreator[] = "NIMOMDCreator";
inline constexpr char kMDDescription[] = "NIMOMDDescription";
inline constexpr char kMDDisplayName[] = "NIMOMDDisplayName";
inline constexpr char kMDDueDate[] = "NIMOMDDueDate";
inline constexpr char kMDDurationSecond[] = "NIMOMDDurationSecond";
inline constexpr char kMDEmailAddresses[] = "NIMOMDEmailAddresses";
inline constexpr char kMDEncodingApplications[] = "NIMOMDEncodingApplications";
inline constexpr char kMDFinderComment[] = "NIMOMDFinderComment";
inline constexpr char kMDFonts[] = "NIMOMDFonts";
inline constexpr char kMDHeadline[] = "NIMOMDHeadline";
inline constexpr char kMDIdentifier[] = "NIMOMDIdentifier";
inline constexpr char kMDInstantMessageAddresses[] = "NIMOMDInstantMessageAddresses";
inline constexpr char kMDInstructions[] = "NIMOMDInstructions";
inline constexpr char kMDKeywords[] = "NIMOMDKeywords";
inline constexpr char kMDKind[] = "NIMOMDKind";
inline constexpr char kMDLanguages[] = "NIMOMDLanguages";
inline constexpr char kMDLastUsedDate[] = "NIMOMDLastUsedDate";
inline constexpr char kMDNumberOfPages[] = "NIMOMDNumberOfPages";
inline constexpr char kMDNamedLocation[] = "NIMOMDNamedLocation";
inline constexpr char kMDOrganizations[] = "NIMOMDOrganizations";
inline constexpr char kMDPageHeight[] = "NIMOMDPageHeight";
inline constexpr char kMDPageWidth[] = "NIMOMDPageWidth";
inline constexpr char kMDParticipants[] = "NIMOMDParticipants";
inline constexpr char kMDPhoneNumbers[] = "NIMOMDPhoneNumbers";
inline constexpr char kMDProjects[] = "NIMOMDProjects";
inline constexpr char kMDPublishers[] = "NIMOMDPublishers";
inline constexpr char kMDRecipients[] = "NIMOMDRecipients";
inline constexpr char kMDRecipientAddresses[] = "NIMOMDRecipientAddresses";
inline constexpr char kMDRights[] = "NIMOMDRights";
inline constexpr char kMDSecurityMethod[] = "NIMOMDSecurityMethod";
inline constexpr char kMDStarRating[] = "NIMOMDStarRating";
inline constexpr char kMDStateOrProvince[] = "NIMOStateOrProvince";
inline constexpr char kMDTextContent[] = "NIMOMDTextContent";
inline constexpr char kMDTitle[] = "NIMOMDTitle";
inline constexpr char kMDVersion[] = "NIMOMDVersion";
inline constexpr char kMDWhereFroms[] = "NIMOMDWhereFroms";
inline constexpr char kMDAcquisitionMake[] = "NIMOMDAcquisitionMake";
inline constexpr char kMDAcquisitionModel[] = "NIMOMDAcquisitionModel";
inline constexpr char kMDAlbum[] = "NIMOMDAlbum";
inline constexpr char kMDAperture[] = "NIMOMDAperture";
inline constexpr char kMDBitsPerSample[] = "NIMOMDBitsPerSample";
inline constexpr char kMDColorSpace[] = "NIMOMDColorSpace";
inline constexpr char kMDEXIFVersion[] = "NIMOMDEXIFVersion";
inline constexpr char kMDExposureMode[] = "NIMOMDExposureMode";
inline constexpr char kMDExposureProgram[] = "NIMOMDExposureProgram";
inline constexpr char kMDExposureTimeSeconds[] = "NIMOMDExposureTimeSeconds";
inline constexpr char kMDExposureTimeString[] = "NIMOMDExposureTimeString";
inline constexpr char kMDFNumber[] = "NIMOMDFNumber";
inline constexpr char kMDFlashOnOff[] = "NIMOMDFlashOnOff";
inline constexpr char kMDFocalLength[] = "NIMOMDFocalLength";
inline constexpr char kMDHasAlphaChannel[] = "NIMOMDHasAlphaChannel";
inline constexpr char kMDISOSpeed[] = "NIMOMDISOSpeed";
inline constexpr char kMDLayerNames[] = "NIMOMDLayerNames";
inline constexpr char kMDMaxAperture[] = "NIMOMDMaxAperture";
inline constexpr char kMDMeteringMode[] = "NIMOMDMeteringMode";
inline constexpr char kMDOrientation[] = "NIMOMDOrientation";
inline constexpr char kMDPixelHeight[] = "NIMOMDPixelHeight";
inline constexpr char kMDPixelWidth[] = "NIMOMDPixelWidth";
inline constexpr char kMDPixelCount[] = "NIMOMDPixelCount";
inline constexpr char kMDProfileName[] = "NIMOMDProfileName";
inline constexpr char kMDRedEyeOnOff[] = "NIMOMDRedEyeOnOff";
inline constexpr char kMDResolutionHeightDPI[] = "NIMOMDResolutionHeightDPI";
inline constexpr char kMDResolutionWidthDPI[] = "NIMOMDResolutionWidthDPI";
inline constexpr char kMDWhiteBalance[] = "NIMOMDWhiteBalance";
inline constexpr char kMDAudioBitRate[] = "NIMOMDAudioBitRate";
inline constexpr char kMDCodecs[] = "NIMOMDCodecs";
inline constexpr char kMDDeliveryType[] = "NIMOMDDeliveryType";
inline constexpr char kMDMediaTypes[] = "NIMOMDMediaTypes";
inline constexpr char kMDStreamable[] = "NIMOMDStreamable";
inline constexpr char kMDTotalBitRate[] = "NIMOMDTotalBitRate";
inline constexpr char kMDVideoBitRate[] = "NIMOMDVideoBitRate";
inline constexpr char kMDAppleLoopDescriptors[] = "NIMOMDAppleLoopDescriptors";
inline constexpr char kMDAppleLoopsKeyFilterType[] = "NIMOMDAppleLoopsKeyFilterType";
inline constexpr char kMDAppleLoopsLoopMode[] = "NIMOMDAppleLoopsLoopMode";
inline constexpr char kMDAppleLoopsRootKey[] = "NIMOMDAppleLoopsRootKey";
inline constexpr char kMDAudioChannelCount[] = "NIMOMDAudioChannelCount";
inline constexpr char kMDAudioEncodingApplication[] = "NIMOMDAudioEncodingApplication";
inline constexpr char kMDAudioSampleRate[] = "NIMOMDAudioSampleRate";
inline constexpr char kMDAudioTrackNumber[] = "NIMOMDAudioTrackNumber";
inline constexpr char kMDComposer[] = "NIMOMDComposer";
inline constexpr char kMDGeneralMIDISequence[] = "NIMOMDGeneralMIDISequence";
inline constexpr char kMDKeySignature[] = "NIMOMDKeySignature";
inline constexpr char kMDLyricist[] = "NIMOMDLyricist";
inline constexpr char kMDMusicalGenre[] = "NIMOMDMusicalGenre";
inline constexpr char kMDMusicalInstrumentCategory[] = "NIMOMDMusicalInstrumentCategory";
inline constexpr char kMDMusicalInstrumentName[] = "NIMOMDMusicalInstrumentName";
inline constexpr char kMDRecodingDate[] = "NIMOMDRecodingDate";
inline constexpr char kMDRecordingYear[] = "NIMOMDRecordingYear";
inline constexpr char kMDTempo[] = "NIMOMDTempo";
inline constexpr char kMDTimeSignature[] = "NIMOMDTimeSignature";
inline constexpr char kMDFSContentChangeDate[] = "NIMOMDFSContentChangeDate";
inline constexpr char kMDFSCreationDate[] = "NIMOMDFSCreationDate";
inline constexpr char kMDFSInvisible[] = "NIMOMDFSInvisible";
inline constexpr char kMDFSIsExtensionHidden[] = "NIMOMDFSIsExtensionHidden";
inline constexpr char kMDFSLabel[] = "NIMOMDFSLabel";
inline constexpr char kMDFSName[] = "NIMOMDFSName";
inline constexpr char kMDFSNodeCount[] = "NIMOMDFSNodeCount";
inline constexpr char kMDOwnerGroupID[] = "NIMOMDOwnerGroupID";
inline constexpr char kMDOwnerUserID[] = "NIMOMDOwnerUserID";
inline constexpr char kMDFSSize[] = "NIMOMDFSSize";
inline constexpr char kMDPath[] = "NIMOMDPath";
inline constexpr char kMDUserTags[] = "_NIMOMDUserTags";
inline constexpr char kMDParent[] = "NIMOMDParent";
inline constexpr char kMDSearchFileName[] = "NIMOMDSearchFileName";
inline constexpr char kMDExtension[] = "NIMOMDExtension";
inline constexpr char kMDPrivilege[] = "NIMOMDPrivilege";
inline constexpr char kMDIsDir[] = "NIMOMDIsDir";
inline constexpr char kMDWildcard[] = "NIMOMDWildcard";
inline constexpr char kMDIsEncrypted[] = "NIMOMDIsEncrypted";
inline constexpr char kMDFinderLabel[] = "_NIMOMDFinderLabel";
inline constexpr char kMDGroupId[] = "_NIMOMDGroupId";
inline constexpr char kMDFinderOpenDate[] = "NIMOMDFinderOpenDate";
inline constexpr char kMDLogicalSize[] = "NIMOMDLogicalSize";
inline constexpr char kMDPhysicalSize[] = "NIMOMDPhysicalSize";
inline constexpr char kMDDateAdded[] = "NIMOMDDateAdded";
inline constexpr char kMDPeopleDisplayName[] = "NIMOMDPeopleDisplayName";
inline constexpr char kMDSubject[] = "NIMOMDSubject";
inline constexpr char kMDPageCount[] = "NIMOMDPageCount";
inline constexpr char kMDWordCount[] = "NIMOMDWordCount";
inline constexpr char kMDTemplate[] = "NIMOMDTemplate";
inline constexpr char kMDLicense[] = "NIMOMDLicense";
inline constexpr char kMDCategory[] = "NIMOMDCategory";
inline constexpr char kMDManager[] = "NIMOMDManager";

/// All of the names above, in their order.
inline constexpr const char* kMetadataNames[] = {
    kMDAttributeChangeDate,
    kMDAudiences,
    kMDAuthors,
    kMDAuthorAddresses,
    kMDCity,
    kMDComment,
    kMDContactKeywords,
    kMDContentCreationDate,
    kMDContentModificationDate,
    kMDContentType,
    kMDContentTypeTree,
    kMDContributors,
    kMDCopyright,
    kMDCountry,
    kMDCoverage,
    kMDCreator,
    kMDDescription,
    kMDDisplayName,
    kMDDueDate,
    kMDDurationSecond,
    kMDEmailAddresses,
    kMDEncodingApplications,
    kMDFinderComment,
    kMDFonts,
    kMDHeadline,
    kMDIdentifier,
    kMDInstantMessageAddresses,
    kMDInstructions,
    kMDKeywords,
    kMDKind,
    kMDLanguages,
    kMDLastUsedDate,
    kMDNumberOfPages,
    kMDNamedLocation,
    kMDOrganizations,
    kMDPageHeight,
    kMDPageWidth,
    kMDParticipants,
    kMDPhoneNumbers,
    kMDProjects,
    kMDPublishers,
    kMDRecipients,
    kMDRecipientAddresses,
    kMDRights,
    kMDSecurityMethod,
    kMDStarRating,
    kMDStateOrProvince,
    kMDTextContent,
    kMDTitle,
    kMDVersion,
    kMDWhereFroms,
    kMDAcquisitionMake,
    kMDAcquisitionModel,
    kMDAlbum,
    kMDAperture,
    kMDBitsPerSample,
    kMDColorSpace,
    kMDEXIFVersion,
    kMDExposureMode,
    kMDExposureProgram,
    kMDExposureTimeSeconds,
    kMDExposureTimeString,
    kMDFNumber,
    kMDFlashOnOff,
    kMDFocalLength,
    kMDHasAlphaChannel,
    kMDISOSpeed,
    kMDLayerNames,
    kMDMaxAperture,
    kMDMeteringMode,
    kMDOrientation,
    kMDPixelHeight,
    kMDPixelWidth,
    kMDPixelCount,
    kMDProfileName,
    kMDRedEyeOnOff,
    kMDResolutionHeightDPI,
    kMDResolutionWidthDPI,
    kMDWhiteBalance,
    kMDAudioBitRate,
    kMDCodecs,
    kMDDeliveryType,
    kMDMediaTypes,
    kMDStreamable,
    kMDTotalBitRate,
    kMDVideoBitRate,
    kMDAppleLoopDescriptors,
    kMDAppleLoopsKeyFilterType,
    kMDAppleLoopsLoopMode,
    kMDAppleLoopsRootKey,
    kMDAudioChannelCount,
    kMDAudioEncodingApplication,
    kMDAudioSampleRate,
    kMDAudioTrackNumber,
    kMDComposer,
    kMDGeneralMIDISequence,
    kMDKeySignature,
    kMDLyricist,
    kMDMusicalGenre,
    kMDMusicalInstrumentCategory,
    kMDMusicalInstrumentName,
    kMDRecodingDate,
    kMDRecordingYear,
    kMDTempo,
    kMDTimeSignature,
    kMDFSContentChangeDate,
    kMDFSCreationDate,
    kMDFSInvisible,
    kMDFSIsExtensionHidden,
    kMDFSLabel,
    kMDFSName,
    kMDFSNodeCount,
    kMDOwnerGroupID,
    kMDOwnerUserID,
    kMDFSSize,
    kMDPath,
    kMDUserTags,
    kMDParent,
    kMDSearchFileName,
    kMDExtension,
    kMDPrivilege,
    kMDIsDir,
    kMDWildcard,
    kMDIsEncrypted,
    kMDFinderLabel,
    kMDGroupId,
    kMDFinderOpenDate,
    kMDLogicalSize,
    kMDPhysicalSize,
    kMDDateAdded,
    kMDPeopleDisplayName,
    kMDSubject,
    kMDPageCount,
    kMDWordCount,
    kMDTemplate,
    kMDLicense,
    kMDCategory,
    kMDManager,
};

// Fields that documents carry and that are not among the names above.
inline constexpr char kMDSearchAncestor[] = "NIMOMDSearchAncestor";

// What the first line of kMDCoverage says of a document that has only the beginning of its file's text.
inline constexpr char kCoverageOfCutText[] = "the beginning of the text";

// The content extraction daemon.
inline constexpr char kContentExtractdName[] = "nimocontentextractd";
inline constexpr char kContentExtractdPidFile[] = "/var/run/nimocontentextractd.pid";
inline constexpr char kContentExtractdSharedMemory[] = "/tmp/nimoce_shm";

// What the extractor is asked with.
inline constexpr char kNeedMeta[] = "need_meta";
inline constexpr char kPath[] = "path";
inline constexpr char kPseudoPath[] = "pseudo_path";

}  // namespace orbisk::fileindex::elastic
