import os
from typing import Any, List, Optional, Union

SUMMARY_NAME: str

class FileResult:
    input: str
    output: str
    state: str
    reason: str
    audio_seconds: float
    summary_line: str

class Summary:
    files: List[FileResult]
    seconds: float
    summary_path: str
    @property
    def converted(self) -> int: ...
    @property
    def skipped(self) -> int: ...
    @property
    def failed(self) -> List[FileResult]: ...
    @property
    def audio_hours(self) -> float: ...
    @property
    def files_per_second(self) -> float: ...
    @property
    def real_time_factor(self) -> float: ...

def convert(in_dir: Union[str, os.PathLike], out_dir: Union[str, os.PathLike], client: Any = ...,
            codec: str = ..., rate: Optional[int] = ..., force: bool = ..., progress: Optional[bool] = ...) -> Summary: ...
