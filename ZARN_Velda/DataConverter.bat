@echo off
rem DataConverter.bat IMAGE JOBDIR
rem
rem The Windows form of DataConverter.sh: inpaints the tripod area of every
rem stitched panorama of the job, "JOBDIR\caches\images\*.jpg", in place, with
rem zarn_inpaint.exe beside this script (which reaches the job without
rem following links and replaces a panorama only when its new one is whole).
rem The Windows build has no OpenCV and so no zarn_inpaint.exe: there this
rem script says so and fails, and the panoramas stay as stitched.
rem
rem Exit status: 0 done, 1 a panorama could not be inpainted or the tool is
rem missing, 2 wrong arguments.
setlocal
if not "%~1"=="IMAGE" goto usage
if "%~2"=="" goto usage
if not "%~3"=="" goto usage
set "tool=%~dp0zarn_inpaint.exe"
if not exist "%tool%" (
    echo DataConverter.bat: %tool% is missing ^(the Windows build has no OpenCV^) 1>&2
    exit /b 1
)
"%tool%" "%~2"
exit /b %errorlevel%
:usage
echo usage: DataConverter.bat IMAGE JOBDIR 1>&2
exit /b 2
